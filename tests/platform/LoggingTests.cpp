#include "platform/Logging.h"
#include "platform/UUID.h"

#include <gtest/gtest.h>
#include <set>
#include <thread>

namespace tavolar {
namespace {

class LoggingTest : public ::testing::Test {
protected:
    void SetUp() override { setSystemLogEnabled(false); }
    void TearDown() override {
        setConsoleSink(nullptr);
        setSystemLogEnabled(true);
    }
};

TEST_F(LoggingTest, ErrorLinesNameTheSourceFileWithoutItsFolders) {
    LogCapture capture;
    logError("/home/builder/src/engine/VELTRZMeasurementController.cpp", "Could not start playback");
    logError("Plain.cpp", "no folders");
    logError("C:\\dev\\Win.cpp", "backslashes");
    TAVOLAR_LOG_ERROR("from a macro");
    logMessage("a plain line");

    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{"(ERROR) VELTRZMeasurementController.cpp : Could not start playback",
                                        "(ERROR) Plain.cpp : no folders", "(ERROR) Win.cpp : backslashes",
                                        "(ERROR) LoggingTests.cpp : from a macro", "a plain line"}));
    EXPECT_EQ(capture.lines().front().level, LogLevel::Error);
    EXPECT_EQ(capture.lines().back().level, LogLevel::Notice);
}

TEST_F(LoggingTest, TheConsoleSinkSeesEveryLineUntilRemoved) {
    std::vector<std::string> console;
    setConsoleSink([&](const LogLine& line) { console.push_back(line.text); });
    logMessage("first");
    logError("Plain.cpp", "second");
    setConsoleSink(nullptr);
    logMessage("third");
    EXPECT_EQ(console, (std::vector<std::string>{"first", "(ERROR) Plain.cpp : second"}));
}

TEST_F(LoggingTest, LinesFromManyThreadsAreAllCapturedWhole) {
    LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 250; ++i)
                logError("Worker.cpp", "thread " + std::to_string(t) + " line " + std::to_string(i));
        });
    for (auto& thread : threads)
        thread.join();
    std::vector<std::string> texts = capture.texts();
    ASSERT_EQ(texts.size(), 1000u);
    std::set<std::string> unique(texts.begin(), texts.end());
    EXPECT_EQ(unique.size(), 1000u);
    EXPECT_TRUE(unique.contains("(ERROR) Worker.cpp : thread 3 line 249"));
}

TEST(UUIDStrings, AreCanonicalVersionFourAndDistinct) {
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        std::string text = newUUIDString();
        ASSERT_EQ(text.size(), 36u);
        ASSERT_TRUE(isUUIDString(text)) << text;
        EXPECT_EQ(text[14], '4') << text;
        EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos) << text;
        for (char c : text)
            EXPECT_FALSE(c >= 'a' && c <= 'f') << text;
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 2000u);

    std::array<std::uint8_t, 16> bytes{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                       0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    EXPECT_EQ(uuidString(bytes), "00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_TRUE(isUUIDString("e621e1f8-c36c-495a-93fc-0c247a3e6e5f"));
    EXPECT_FALSE(isUUIDString("E621E1F8C36C495A93FC0C247A3E6E5F"));
    EXPECT_FALSE(isUUIDString("E621E1F8-C36C-495A-93FC-0C247A3E6E5G"));
    EXPECT_FALSE(isUUIDString("E621E1F8-C36C-495A-93FC-0C247A3E6E5"));
}

} // namespace
} // namespace tavolar
