// Anchors the framework library so that it exists before its first subsystem does.
namespace tavolar {
const char* tavolarVersion() { return "0.1.0"; }
} // namespace tavolar
