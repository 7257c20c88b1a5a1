// CMemFile: operations against its model, and the input itself as a text that is escaped for XML.
#include <Windows/MemFile.h>

#include "Input.h"

namespace {

// What a reader of XML makes of an escaped text; each of the five characters stands there as its entity
// alone.
std::string Unescaped(const std::string& escaped) {
    static const struct {
        const char* entity;
        char character;
    } kEntities[] = {{"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&apos;", '\''}, {"&quot;", '"'}};
    std::string text;
    for (size_t at = 0; at < escaped.size();) {
        if (!strchr("<>&'\"", escaped[at])) {
            text += escaped[at++];
            continue;
        }
        const auto* found =
            std::find_if(std::begin(kEntities), std::end(kEntities), [&](const auto& candidate) {
                return escaped.compare(at, strlen(candidate.entity), candidate.entity) == 0;
            });
        fuzz::Require(found != std::end(kEntities), "a special character begins its entity");
        text += found->character;
        at += strlen(found->entity);
    }
    return text;
}

std::string Content(const CMemFile& file) {
    return std::string(reinterpret_cast<const char*>(file.GetBufferPtr()), file.GetLength());
}

void Escape(const std::string& bytes) {
    const std::string text = bytes.c_str(); // up to the first NUL
    CMemFile file(1 + static_cast<unsigned int>(bytes.size() % 64));
    file.WriteStrEntities(text.c_str());
    fuzz::Require(Unescaped(Content(file)) == text, "an escaped text unescaped is the text");
    const unsigned int length = file.GetLength();
    file.WriteEntitiesF("%s", text.c_str());
    fuzz::Require(Content(file) == Content(file).substr(0, length) + Content(file).substr(0, length),
                  "a formatted text is escaped like a plain one");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Escape(std::string(data, data + size));
    return fuzz::Exercise(models::ExerciseMemoryFile, data, size);
}
