#include "platform/Logging.h"
#include "platform/NotificationCenter.h"
#include "platform/UserDefaults.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <thread>

namespace tavolar {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class UserDefaultsTest : public ::testing::Test {
protected:
    void SetUp() override {
        setSystemLogEnabled(false);
        std::string pattern = (fs::temp_directory_path() / "tavolar-defaults-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
        file_ = directory_ / "nested" / "defaults.json";
    }
    void TearDown() override {
        fs::remove_all(directory_);
        setSystemLogEnabled(true);
    }
    static std::string read(const fs::path& path) {
        std::ifstream stream(path);
        std::ostringstream text;
        text << stream.rdbuf();
        return text.str();
    }
    static void write(const fs::path& path, std::string_view text) {
        fs::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }

    fs::path directory_;
    fs::path file_;
};

TEST_F(UserDefaultsTest, ValuesPersistAcrossInstancesAndOverrideRegisteredDefaults) {
    {
        UserDefaults defaults(file_);
        EXPECT_FALSE(fs::exists(file_)); // reading never writes
        defaults.registerDefaults(
            {{"RZFrequencyDomainGraphSmoothingFraction", 6}, {"ChecksRecordingLevel", true}});
        EXPECT_EQ(defaults.integerForKey("RZFrequencyDomainGraphSmoothingFraction"), 6);
        EXPECT_TRUE(defaults.boolForKey("ChecksRecordingLevel"));

        defaults.setBool(false, "ChecksRecordingLevel");
        defaults.setDouble(1e-3, "RZRegularizationDuringDeconvolutionLambda");
        defaults.setString("µ-Mic", "name");
        defaults.setFloat(0.1f, "fraction");
        defaults.setObject(json{{"a", json::array({1, 2})}}, "nested");
        EXPECT_FALSE(defaults.boolForKey("ChecksRecordingLevel"));
    }
    ASSERT_TRUE(fs::exists(file_));
    EXPECT_TRUE(json::parse(read(file_)).is_object());
    for (const auto& entry : fs::directory_iterator(file_.parent_path()))
        EXPECT_EQ(entry.path().filename(), "defaults.json") << "a temporary file was left behind";

    UserDefaults reopened(file_);
    EXPECT_FALSE(reopened.boolForKey("ChecksRecordingLevel"));
    EXPECT_EQ(reopened.doubleForKey("RZRegularizationDuringDeconvolutionLambda"), 1e-3);
    EXPECT_EQ(reopened.stringForKey("name"), "µ-Mic");
    EXPECT_EQ(reopened.floatForKey("fraction"), 0.1f);
    EXPECT_EQ(reopened.objectForKey("nested"), (json{{"a", json::array({1, 2})}}));
    // Registered defaults are not stored.
    EXPECT_EQ(reopened.integerForKey("RZFrequencyDomainGraphSmoothingFraction"), 0);

    // Removing a key brings the registered default back.
    reopened.registerDefaults({{"name", "registered"}});
    reopened.removeObjectForKey("name");
    EXPECT_EQ(reopened.stringForKey("name"), "registered");
    reopened.setObject(nullptr, "fraction");
    EXPECT_FALSE(reopened.objectForKey("fraction"));
    EXPECT_FALSE(UserDefaults(file_).objectForKey("name"));
}

TEST_F(UserDefaultsTest, MissingKeysAndValuesOfOtherTypesConvertAsThePlatformDoes) {
    UserDefaults defaults(file_);
    EXPECT_EQ(defaults.integerForKey("missing"), 0);
    EXPECT_FALSE(defaults.stringForKey("missing"));

    defaults.registerDefaults(json::parse(R"({"yes": "YES", "true": "true", "no": "NO", "zeros": "000",
        "seven": " 7.9 apples", "negative": -2.7, "huge": 1e300, "flag": true, "list": [1], "int": 12})"));
    EXPECT_TRUE(defaults.boolForKey("yes"));
    EXPECT_TRUE(defaults.boolForKey("true"));
    EXPECT_FALSE(defaults.boolForKey("no"));
    EXPECT_FALSE(defaults.boolForKey("zeros"));
    EXPECT_TRUE(defaults.boolForKey("seven"));
    EXPECT_TRUE(defaults.boolForKey("negative"));
    EXPECT_EQ(defaults.integerForKey("seven"), 7);
    EXPECT_EQ(defaults.doubleForKey("seven"), 7.9);
    EXPECT_EQ(defaults.integerForKey("negative"), -2);
    EXPECT_EQ(defaults.integerForKey("huge"), INT64_MAX);
    EXPECT_EQ(defaults.floatForKey("huge"), std::numeric_limits<float>::infinity());
    EXPECT_EQ(defaults.integerForKey("flag"), 1);
    EXPECT_EQ(defaults.stringForKey("int"), "12");
    EXPECT_EQ(defaults.stringForKey("negative"), "-2.7");
    EXPECT_FALSE(defaults.stringForKey("list"));
    EXPECT_FALSE(defaults.boolForKey("list"));
    EXPECT_EQ(defaults.integerForKey("list"), 0);
}

TEST_F(UserDefaultsTest, ADamagedFileIsLoggedTreatedAsEmptyAndKeptAside) {
    for (std::string_view damage : {"{\"ChecksRecordingLevel\": tru", "[1, 2]", "\x01\x02\xff"}) {
        write(file_, damage);
        LogCapture capture;
        UserDefaults defaults(file_);
        ASSERT_EQ(capture.lines().size(), 1u) << damage;
        EXPECT_TRUE(capture.contains("is damaged and was ignored"));
        EXPECT_FALSE(defaults.boolForKey("ChecksRecordingLevel"));

        defaults.setInteger(3, "count");
        fs::path aside = file_;
        aside += ".damaged";
        EXPECT_EQ(read(aside), damage);
        EXPECT_EQ(UserDefaults(file_).integerForKey("count"), 3);
        fs::remove(aside);
    }
    // A file where the folder should be: writing fails, is logged, and the value stays in memory.
    write(directory_ / "plain", "not a folder");
    LogCapture capture;
    UserDefaults blocked(directory_ / "plain" / "defaults.json");
    blocked.setBool(true, "kept");
    EXPECT_TRUE(blocked.boolForKey("kept"));
    EXPECT_FALSE(blocked.synchronize());
    EXPECT_TRUE(capture.contains("Could not write the defaults file"));
}

TEST_F(UserDefaultsTest, ConcurrentWritersLoseNothingAndChangesAreAnnounced) {
    UserDefaults defaults(file_);
    std::vector<std::string> changedKeys;
    std::mutex mutex;
    auto token = NotificationCenter::defaultCenter().addObserver(
        std::string(kUserDefaultsDidChangeNotification), &defaults, [&](const Notification& notification) {
            std::lock_guard lock(mutex);
            changedKeys.push_back(notification.userInfoValue<std::string>("key").value_or("?"));
        });
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t)
        writers.emplace_back([&, t] {
            for (int i = 0; i < 10; ++i)
                defaults.setInteger(t * 100 + i, "key" + std::to_string(t) + "." + std::to_string(i));
        });
    for (auto& writer : writers)
        writer.join();
    NotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_EQ(changedKeys.size(), 40u);
    UserDefaults reopened(file_);
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 10; ++i)
            EXPECT_EQ(reopened.integerForKey("key" + std::to_string(t) + "." + std::to_string(i)),
                      t * 100 + i);
}

TEST_F(UserDefaultsTest, TheFileLocationFollowsTheEnvironment) {
    auto saved = [](const char* name) {
        const char* value = std::getenv(name);
        return value ? std::optional<std::string>(value) : std::nullopt;
    };
    auto restore = [](const char* name, const std::optional<std::string>& value) {
        if (value)
            setenv(name, value->c_str(), 1);
        else
            unsetenv(name);
    };
    auto file = saved("TAVOLAR_DEFAULTS_FILE"), xdg = saved("XDG_CONFIG_HOME"), home = saved("HOME");

    unsetenv("TAVOLAR_DEFAULTS_FILE");
    setenv("XDG_CONFIG_HOME", "/config/here", 1);
    EXPECT_EQ(UserDefaults::defaultsFilePath(), fs::path("/config/here/tavolar/defaults.json"));
    setenv("XDG_CONFIG_HOME", "relative/ignored", 1);
    setenv("HOME", "/home/someone", 1);
    EXPECT_EQ(UserDefaults::defaultsFilePath(), fs::path("/home/someone/.config/tavolar/defaults.json"));
    unsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(UserDefaults::defaultsFilePath(), fs::path("/home/someone/.config/tavolar/defaults.json"));
    setenv("TAVOLAR_DEFAULTS_FILE", file_.c_str(), 1);
    EXPECT_EQ(UserDefaults::defaultsFilePath(), file_);

    // The shared instance is made on first use, which is here (unless the test is repeated).
    static const fs::path fileOfFirstRun = file_;
    UserDefaults& shared = UserDefaults::standard();
    EXPECT_EQ(shared.filePath(), fileOfFirstRun);
    if (shared.filePath() == file_) {
        shared.setString("standard", "where");
        EXPECT_EQ(UserDefaults(file_).stringForKey("where"), "standard");
    }

    restore("TAVOLAR_DEFAULTS_FILE", file);
    restore("XDG_CONFIG_HOME", xdg);
    restore("HOME", home);
}

} // namespace
} // namespace tavolar
