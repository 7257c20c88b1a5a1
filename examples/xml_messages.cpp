// XML documents in a CMemFile: written piece by piece, with texts escaped, and read back.

#include <stdio.h>
#include <stdlib.h>

#include <Windows/MemFile.h>
#include <Windows/Socket.h>

namespace {

struct Reading {
    const char* sensor;
    double value;
    const char* remark;
};

constexpr Reading kReadings[] = {
    {"inlet", 21.5, "steady"},
    {"outlet", 38.25, "warm & rising"},
    {"\"spare\"", -0.5, "3 < 4"},
};

// WriteF() writes as it stands, so it is for what is known; the two others escape what came from elsewhere.
void Write(CMemFile& document, const Reading& reading) {
    document.WriteF("  <reading value=\"%.2f\">\n", reading.value);
    document.WriteF("    <sensor>");
    document.WriteStrEntities(reading.sensor);
    document.WriteF("</sensor>\n    <remark>");
    document.WriteEntitiesF("%s: %s", reading.sensor, reading.remark);
    document.WriteF("</remark>\n  </reading>\n");
}

// The document as a frame: room for the length comes first, and is filled in when the length is known. A
// socket sends it with SendMemFileWithLengthPrefix().
void WriteFrame(CMemFile& frame) {
    unsigned char prefix[4] = {};
    frame.Write(prefix, sizeof prefix);
    frame.WriteF("<readings>\n");
    for (const Reading& reading : kReadings)
        Write(frame, reading);
    frame.WriteF("</readings>\n");
    CSocket::EncodeLength(frame.GetLength() - sizeof prefix, frame.GetBufferPtr());
}

// What a receiver does with the bytes of a frame.
void ReadFrame(CMemFile& frame) {
    unsigned char prefix[4] = {};
    frame.SeekToBegin();
    frame.Read(prefix, sizeof prefix);
    const unsigned int length = static_cast<unsigned int>(prefix[0]) << 24 |
                                static_cast<unsigned int>(prefix[1]) << 16 |
                                static_cast<unsigned int>(prefix[2]) << 8 | prefix[3];
    printf("a frame of %u bytes:\n", length);
    char piece[64];
    while (const unsigned int count = frame.Read(piece, sizeof piece))
        fwrite(piece, 1, count, stdout);
}

} // namespace

int main() {
    CMemFile frame;
    WriteFrame(frame);
    ReadFrame(frame);

    constexpr unsigned int kRoom = 16;
    CMemFile small(static_cast<unsigned char*>(malloc(kRoom)), kRoom,
                   0); // which does not grow: the rest is dropped
    small.WriteF("%s", "a text that is longer than its room");
    printf("%u of 35 bytes fit: %.*s\n", small.GetLength(), static_cast<int>(small.GetLength()),
           reinterpret_cast<const char*>(small.GetBufferPtr()));
}
