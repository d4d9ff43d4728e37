// Measurement documents from outside: the bytes of a file are opened as the command line opens
// them, read-only and for writing, and every record is listed, loaded and described. Any file gives
// records or an error that names the document; what list and info print is always valid JSON.

#include "RecordDescription.h"
#include "RecordStore.h"
#include "fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tavolar;
    using cli::RecordStore;
    for (RecordStore::Mode mode : {RecordStore::Mode::ReadOnly, RecordStore::Mode::ReadWrite}) {
        const std::filesystem::path path = fuzz::writeTemporaryFile(data, size, ".document");
        std::filesystem::remove(path.string() + "-journal");
        auto store = RecordStore::open(path, mode);
        if (!store) {
            FUZZ_CHECK(store.error().localizedDescription.find(path.string()) != std::string::npos,
                       "a document that cannot be opened is named");
            continue;
        }
        nlohmann::json list = nlohmann::json::array();
        for (std::size_t index = 0; index < store->summaries().size(); ++index) {
            list.push_back(cli::describeSummary(store->summaries()[index], index + 1));
            if (auto record = store->load(index)) {
                const nlohmann::json description = cli::describeRecord(**record, index + 1);
                cli::formatRecordDescription(description);
                FUZZ_CHECK(nlohmann::json::accept(cli::jsonText(description)), "info --json prints JSON");
            }
        }
        cli::formatSummaryTable(list);
        FUZZ_CHECK(nlohmann::json::accept(cli::jsonText(list)), "list --json prints JSON");
        store->captureSettings();
    }
    return 0;
}
