// Measurement documents and their records, read, selected and changed through the command line's
// record store, so that Python and the commands agree on numbering, names and what is written.

#include "AudioFiles.h"
#include "Bindings.h"
#include "CommandLine.h"
#include "RecordChanges.h"
#include "RecordDescription.h"
#include "RecordStore.h"
#include "audio/MicrophoneCalibrationRecord.h"
#include "platform/KeyedArchiver.h"

#include <cmath>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <pybind11/stl.h>
#include <set>

namespace tavolar::python {

namespace {

using cli::RecordStore;

// An open document: its store, and the records handed out so far, so that two look-ups of one record
// give the same record and a change made through either is seen by both.
struct DocumentState {
    std::optional<RecordStore> store;
    bool readOnly = false;
    std::map<std::string, std::shared_ptr<VELTMeasurementRecord>, std::less<>> loaded; // by UUID

    RecordStore& openStore() {
        if (!store)
            throw py::value_error("The document is closed.");
        return *store;
    }

    // The records keep their samples when the store (and with it the impulse cache) goes.
    void close() {
        for (auto& [uuid, record] : loaded) {
            std::shared_ptr<const VELTRealVector> impulse = record->impulseResponse();
            record->setImpulseCache(nullptr);
            if (impulse && record->sampleRate() != 0)
                record->setImpulseResponse(impulse);
        }
        store.reset();
    }
};

std::shared_ptr<DocumentState> documentOf(const RecordHandle& handle) {
    return std::static_pointer_cast<DocumentState>(handle.owner);
}

RecordHandle loadRecord(const std::shared_ptr<DocumentState>& state, std::size_t index) {
    RecordStore& store = state->openStore();
    if (index >= store.summaries().size())
        throw py::index_error(fmt::format("The document holds {} records; there is no record at index {}.",
                                          store.summaries().size(), index));
    const std::string& uuid = store.summaries()[index].uuid;
    if (auto known = state->loaded.find(uuid); known != state->loaded.end())
        return {known->second, state};
    auto record = valueOrRaise(store.load(index), "DocumentError");
    state->loaded.emplace(uuid, record);
    return {record, state};
}

// The place of a record given by number, UUID, UUID prefix or, failing those, its name.
std::size_t findRecord(DocumentState& state, const std::string& key) {
    RecordStore& store = state.openStore();
    const std::vector<std::string> selectors{key};
    if (key != "all")
        if (auto selected = store.select(selectors, false); selected && selected->size() == 1)
            return selected->front();
    std::vector<std::size_t> named;
    for (std::size_t index = 0; index < store.summaries().size(); ++index)
        if (store.summaries()[index].name == key)
            named.push_back(index);
    if (named.size() == 1)
        return named.front();
    if (named.size() > 1)
        throw py::key_error(fmt::format("{} records are named {}; give a UUID instead.", named.size(), key));
    throw py::key_error(fmt::format("{} names no record of {}: give a UUID, a UUID prefix or a name.", key,
                                    store.path().string()));
}

// Mistakes in what Python gives are ValueError.
template <typename T> T valueOrValueError(Expected<T> expected) {
    if (!expected) {
        const TavolarError& mistake = expected.error();
        throw py::value_error(mistake.localizedRecoverySuggestion.empty()
                                  ? mistake.localizedDescription
                                  : mistake.localizedDescription + "\n" +
                                        mistake.localizedRecoverySuggestion);
    }
    if constexpr (!std::is_void_v<T>)
        return std::move(*expected);
}

void requireWritable(const RecordHandle& handle) {
    if (std::shared_ptr<DocumentState> document = documentOf(handle); document && document->readOnly)
        raise("DocumentError", "The document was opened read-only.",
              "Open it with Document.open(path, readonly=False) to change its records.");
}

// Writes a changed record back to its document, if it has one.
void saveChanged(const RecordHandle& handle) {
    if (std::shared_ptr<DocumentState> document = documentOf(handle)) {
        const std::shared_ptr<VELTMeasurementRecord> changed[] = {handle.record};
        valueOrRaise(document->openStore().save(changed, {}), "DocumentError");
    }
}

// Changes a record as tavolar set does, everything checked before anything changes.
void changeRecord(const RecordHandle& handle, const cli::RecordChanges& changes) {
    valueOrValueError(changes.check());
    valueOrValueError(changes.checkWindow(*handle.record, ""));
    requireWritable(handle);
    changes.apply(*handle.record);
    saveChanged(handle);
}

// Attaches a microphone calibration (from a file, a sensitivity for the one the record has, or
// neither with remove) as tavolar calibrate attaches it to records.
void calibrateRecord(const RecordHandle& handle, std::optional<std::string> file,
                     std::optional<double> sensitivity, std::optional<std::string> unit, bool remove) {
    if (remove && (file || sensitivity || unit))
        throw py::value_error("remove takes the calibration away: give neither a file nor a sensitivity.");
    if (!remove && !file && !sensitivity && !unit)
        throw py::value_error("Nothing to attach: give a calibration file, a sensitivity, or remove=True.");
    if (sensitivity && !std::isfinite(*sensitivity))
        throw py::value_error("The sensitivity must be a number.");
    cli::CalibrationChange change;
    change.remove = remove;
    change.sensitivity = sensitivity;
    if (unit) {
        change.sensitivityUnit = cli::microphoneUnitFromName(*unit);
        if (!change.sensitivityUnit)
            throw py::value_error(
                fmt::format("{} is not a sensitivity unit: mV/Pa, dBV/uBar or dBFS.", *unit));
    } else if (sensitivity) {
        change.sensitivityUnit = MicrophoneSensitivityUnit::millivoltsPerPascal;
    }
    if (file)
        change.fromFile = valueOrRaise(cli::readCalibrationFile(*file), "CalibrationError");
    // Tried first, so that a refusal leaves the record as it was.
    valueOrRaise(change.apply(handle.record->microphoneCalibrationRecord(), "The record"),
                 "CalibrationError");
    requireWritable(handle);
    valueOrRaise(change.applyTo(*handle.record, "The record"));
    saveChanged(handle);
}

std::string describe(const RecordHandle& handle) {
    std::size_t number = 0;
    nlohmann::json loopback = handle.loopback;
    if (auto document = documentOf(handle); document && document->store) {
        const auto& summaries = document->store->summaries();
        const std::string uuid = handle.record->impulseUUID();
        for (std::size_t index = 0; index < summaries.size(); ++index)
            if (summaries[index].uuid == uuid)
                number = index + 1;
        loopback = document->store->loopbackReference(uuid);
    }
    return cli::jsonText(cli::describeRecord(*handle.record, number, loopback));
}

// A record made from samples: the analysis defaults that measure and import give.
std::shared_ptr<VELTMeasurementRecord> recordFromSamples(VELTRealVector samples, std::int64_t sampleRate,
                                                         RecordStore* store) {
    valueOrRaise(cli::checkSampleRate(sampleRate, "The sample rate", false));
    if (samples.length() < 2)
        throw py::value_error("An impulse response needs at least two samples.");
    if (!samples.isFinite())
        throw py::value_error("The impulse response holds samples that are not finite.");
    // A record's response is circular, its second half the times before zero: for an odd length every
    // time would read one sample late. A zero after the last sample evens the length, as import does.
    if (samples.length() % 2 == 1)
        samples.setLength(samples.length() + 1);
    std::shared_ptr<VELTMeasurementRecord> record;
    if (store) {
        record = store->makeRecord(std::move(samples), sampleRate);
    } else {
        record = VELTMeasurementRecord::record();
        record->setSampleRate(sampleRate);
        record->setImpulseResponse(std::move(samples));
    }
    record->setDate(ArchivedDate(std::chrono::system_clock::now()));
    return record;
}

} // namespace

std::optional<VELTAudioCaptureSettings> storedCaptureSettings(const py::object& document) {
    if (document.is_none())
        return std::nullopt;
    auto state = document.cast<std::shared_ptr<DocumentState>>();
    return valueOrRaise(state->openStore().captureSettings(), "DocumentError");
}

void keepCaptureSettings(const py::object& document, const VELTAudioCaptureSettings& settings) {
    if (auto state = document.cast<std::shared_ptr<DocumentState>>(); state->store)
        valueOrRaise(state->store->putCaptureSettings(settings), "DocumentError");
}

void addDocuments(py::module_& module) {
    py::class_<RecordHandle> record(module, "RecordHandle", "One measurement record of the engine.");
    record
        .def_static(
            "from_impulse",
            [](const py::array& samples, std::int64_t sampleRate, std::optional<std::string> name) {
                auto made =
                    recordFromSamples(vectorFromArray(samples, "The impulse response"), sampleRate, nullptr);
                made->setComment(name);
                cli::applyDefaultAnalysisSettings(*made);
                return RecordHandle{made, nullptr};
            },
            py::arg("samples"), py::arg("sample_rate"), py::arg("name") = py::none())
        .def_property_readonly("uuid", [](const RecordHandle& self) { return self.record->impulseUUID(); })
        .def_property_readonly(
            "display_name", [](const RecordHandle& self) { return RecordStore::displayName(*self.record); })
        .def_property_readonly("sample_rate",
                               [](const RecordHandle& self) { return self.record->sampleRate(); })
        .def_property_readonly("in_document", [](const RecordHandle& self) { return self.owner != nullptr; })
        .def("description", &describe, "Everything info shows of the record, as JSON text.")
        .def("impulse",
             [](const RecordHandle& self) { return arraySharingVector(self.record->impulseResponse()); })
        .def("windowed_impulse",
             [](const RecordHandle& self) {
                 return arrayTakingVector(self.record->windowedImpulseResponse());
             })
        .def(
            "change",
            [](const RecordHandle& self, std::optional<float> windowBegin, std::optional<float> windowEnd,
               std::optional<std::string> windowType, std::optional<std::string> comment,
               std::optional<std::string> notes, std::optional<std::string> color,
               std::optional<float> splReference, bool noSPLReference, std::optional<double> speedOfSound) {
                changeRecord(self, cli::RecordChanges{windowBegin, windowEnd, windowType, comment, notes,
                                                      color, splReference, noSPLReference, speedOfSound});
            },
            py::kw_only(), py::arg("window_begin") = py::none(), py::arg("window_end") = py::none(),
            py::arg("window_type") = py::none(), py::arg("comment") = py::none(),
            py::arg("notes") = py::none(), py::arg("color") = py::none(),
            py::arg("spl_reference") = py::none(), py::arg("no_spl_reference") = false,
            py::arg("speed_of_sound") = py::none())
        .def("calibrate", &calibrateRecord, py::kw_only(), py::arg("file") = py::none(),
             py::arg("sensitivity") = py::none(), py::arg("sensitivity_unit") = py::none(),
             py::arg("remove") = false)
        .def("archive",
             [](const RecordHandle& self) {
                 // A record a document stored keeps its samples out of its own archive; a pickled
                 // record carries them, so a snapshot that saves them is archived.
                 std::shared_ptr<VELTMeasurementRecord> snapshot = self.record->cachedCopy();
                 snapshot->setDontSaveImpulse(false);
                 std::vector<std::byte> data = KeyedArchiver::archivedDataWithRootObject(*snapshot);
                 return py::bytes(reinterpret_cast<const char*>(data.data()), data.size());
             })
        .def_static("from_archive", [](const py::bytes& data) {
            const std::string_view bytes = data;
            auto decoded = valueOrRaise(KeyedUnarchiver::unarchivedObjectOfClass<VELTMeasurementRecord>(
                std::as_bytes(std::span(bytes.data(), bytes.size()))));
            return RecordHandle{std::make_shared<VELTMeasurementRecord>(std::move(decoded)), nullptr};
        });
    addCurves(module, record);

    py::class_<DocumentState, std::shared_ptr<DocumentState>>(module, "DocumentHandle",
                                                              "An open measurement document.")
        .def_static(
            "open",
            [](const std::string& path, bool create, bool readOnly) {
                auto state = std::make_shared<DocumentState>();
                std::error_code status;
                if (create && std::filesystem::exists(path, status))
                    raise("DocumentError", fmt::format("The document {} already exists.", path),
                          "Open it with Document.open, or remove it first.");
                state->store =
                    valueOrRaise(RecordStore::open(path, create     ? RecordStore::Mode::CreateIfMissing
                                                         : readOnly ? RecordStore::Mode::ReadOnly
                                                                    : RecordStore::Mode::ReadWrite),
                                 "DocumentError");
                state->readOnly = readOnly;
                return state;
            },
            py::arg("path"), py::arg("create") = false, py::arg("readonly") = false)
        .def_property_readonly("path", [](DocumentState& self) { return self.openStore().path().string(); })
        .def_property_readonly("closed", [](const DocumentState& self) { return !self.store; })
        .def_readonly("readonly", &DocumentState::readOnly)
        .def("close", &DocumentState::close)
        .def("__len__", [](DocumentState& self) { return self.openStore().summaries().size(); })
        .def("uuids",
             [](DocumentState& self) {
                 std::vector<std::string> uuids;
                 for (const RecordSummary& summary : self.openStore().summaries())
                     uuids.push_back(summary.uuid);
                 return uuids;
             })
        .def("find", [](DocumentState& self, const std::string& key) { return findRecord(self, key); })
        .def("remove",
             [](DocumentState& self, std::size_t index) {
                 if (self.readOnly)
                     raise("DocumentError", "The document was opened read-only.",
                           "Open it with Document.open(path, readonly=False) to remove records.");
                 RecordStore& store = self.openStore();
                 if (index >= store.summaries().size())
                     throw py::index_error(fmt::format("There is no record at index {}.", index));
                 // As delete removes them: a damaged record can be removed too, as nothing of it is read.
                 const std::string uuid = store.summaries()[index].uuid;
                 MeasurementDocument& document = store.document();
                 auto removed = document.performBatch([&]() -> Expected<void> {
                     if (auto gone = document.removeRecord(uuid); !gone)
                         return std::unexpected(gone.error());
                     return {};
                 });
                 if (!removed)
                     throw RaisedError{"DocumentError", cli::documentError(store.path(), removed.error())};
                 self.loaded.erase(uuid);
                 // Saving nothing lists the records anew.
                 valueOrRaise(store.save({}, {}), "DocumentError");
             })
        .def("load", [](const std::shared_ptr<DocumentState>& self,
                        std::size_t index) { return loadRecord(self, index); })
        .def(
            "add",
            [](const std::shared_ptr<DocumentState>& self, std::vector<RecordHandle> records) {
                if (self->readOnly)
                    raise("DocumentError", "The document was opened read-only.",
                          "Open it with Document.open(path, readonly=False) to add records.");
                RecordStore& store = self->openStore();
                std::vector<std::shared_ptr<VELTMeasurementRecord>> added;
                std::vector<std::string> impulses;
                for (const RecordHandle& given : records) {
                    // A record from elsewhere is copied into this document with its own samples.
                    auto impulse = given.record->impulseResponse();
                    if (!impulse || given.record->sampleRate() <= 0)
                        raise("Error", "A record without an impulse response cannot be stored.");
                    auto record = store.makeRecord(*impulse, given.record->sampleRate());
                    given.record->copyAttributesToMeasurementRecord(*record);
                    if (!given.loopback.is_null())
                        store.setLoopbackReference(record->impulseUUID(), given.loopback);
                    added.push_back(std::move(record));
                    impulses.push_back(added.back()->impulseUUID());
                }
                valueOrRaise(store.save(added, impulses), "DocumentError");
                std::vector<RecordHandle> handles;
                for (const auto& record : added) {
                    self->loaded.emplace(record->impulseUUID(), record);
                    handles.push_back({record, self});
                }
                return handles;
            },
            "Stores copies of records in the document and answers them.")
        .def(
            "add_impulses",
            [](const std::shared_ptr<DocumentState>& self, const py::array& samples, std::int64_t sampleRate,
               std::optional<std::string> name) {
                if (self->readOnly)
                    raise("DocumentError", "The document was opened read-only.",
                          "Open it with Document.open(path, readonly=False) to add records.");
                RecordStore& store = self->openStore();
                std::vector<VELTRealVector> channels = channelsFromArray(samples, "The impulse responses");
                std::vector<std::shared_ptr<VELTMeasurementRecord>> added;
                std::vector<std::string> impulses;
                for (std::size_t channel = 0; channel < channels.size(); ++channel) {
                    auto record = recordFromSamples(std::move(channels[channel]), sampleRate, &store);
                    if (name)
                        record->setComment(
                            channels.size() == 1 ? *name : fmt::format("{} (channel {})", *name, channel));
                    cli::applyDefaultAnalysisSettings(*record);
                    impulses.push_back(record->impulseUUID());
                    added.push_back(std::move(record));
                }
                valueOrRaise(store.save(added, impulses), "DocumentError");
                std::vector<RecordHandle> handles;
                for (const auto& record : added) {
                    self->loaded.emplace(record->impulseUUID(), record);
                    handles.push_back({record, self});
                }
                return handles;
            },
            py::arg("samples"), py::arg("sample_rate"), py::arg("name") = py::none());
}

} // namespace tavolar::python
