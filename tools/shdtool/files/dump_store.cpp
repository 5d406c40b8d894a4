// Finds and compares the dump files. Called by the dump and status commands.
#include "tools/shdtool/files/dump_store.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>

#include "tools/client/local_socket.h"
#include "tools/shdtool/files/dump_text.h"
#include "tools/shdtool/files/file_io.h"

namespace shdtool {
namespace {

std::optional<DumpFile> Examine(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    return DumpFile{status.st_size, status.st_mtime};
}

}  // namespace

std::array<DumpSlot, kDumpSlots> ReadDumpSlots(std::string_view root) {
    const std::string directory = shdclient::PathBelow(root, shd::kDumpDir);
    std::array<DumpSlot, kDumpSlots> slots;
    int number = 0;
    for (DumpSlot& slot : slots) {
        slot.raw_path = fmt::format("{}{}_{}", directory, shd::kDumpName, number);
        slot.text_path = directory + shd::kDumpBase64Name;
        if (number > 0) slot.text_path += fmt::format(".{}", number);
        slot.raw = Examine(slot.raw_path);
        slot.text = Examine(slot.text_path);
        ++number;
    }
    return slots;
}

DumpVerdict CompareDumpFiles(const DumpSlot& slot) {
    if (!slot.raw) return {false, "the raw file is missing"};
    if (!slot.text) return {false, "the base64 file is missing"};
    const auto raw = ReadWholeFile(slot.raw_path);
    if (!raw) return {false, raw.error().message};
    const auto text = ReadWholeFile(slot.text_path);
    if (!text) return {false, text.error().message};

    const DecodedDump decoded = DecodeDumpText(*text);
    if (decoded.damage) {
        return {false, fmt::format("base64 damaged at character {}: {}", decoded.damage->offset,
                                   decoded.damage->reason)};
    }
    const auto [in_raw, in_text] =
        std::mismatch(raw->begin(), raw->end(), decoded.bytes.begin(), decoded.bytes.end(),
                      [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; });
    if (in_raw == raw->end() && in_text == decoded.bytes.end()) {
        return {true, "both files hold the same bytes"};
    }
    return {false, fmt::format("the files differ from byte {} on (raw {} bytes, base64 {} bytes)",
                               in_raw - raw->begin(), raw->size(), decoded.bytes.size())};
}

}  // namespace shdtool
