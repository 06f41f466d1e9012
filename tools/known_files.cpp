#include "known_files.h"

namespace tools {

namespace {

using namespace std::string_view_literals;

struct Mark {
    size_t offset;
    std::string_view bytes;
    const char* kind;
};

constexpr const char* kIsoMedia = "an ISO media file (MP4, MOV)";

constexpr Mark kMarks[] = {
    {4, "ftyp"sv, kIsoMedia},
    {4, "moov"sv, kIsoMedia},
    {4, "mdat"sv, kIsoMedia},
    {4, "wide"sv, kIsoMedia},
    {0, "\x1A\x45\xDF\xA3"sv, "a Matroska file (MKV, WebM)"},
    {0, "RIFF"sv, "a RIFF file (AVI, WebP)"},
    {0, "YUV4MPEG2"sv, "a YUV4MPEG2 file (Y4M)"},
    {0, "\x89PNG\r\n\x1A\n"sv, "a PNG picture"},
    {0, "\xFF\xD8\xFF"sv, "a JPEG picture"},
};

}  // namespace

const char* knownKind(std::string_view beginning) {
    for (const Mark& mark : kMarks) {
        if (beginning.size() >= mark.offset &&
            beginning.substr(mark.offset, mark.bytes.size()) == mark.bytes)
            return mark.kind;
    }
    return nullptr;
}

}  // namespace tools
