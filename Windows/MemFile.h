// A byte buffer in memory that is used like a file: position, length, reads, writes, seeks, and writers of
// formatted and of XML-escaped text.
//
// Thread safety: an object belongs to one thread at a time.
// Lifetime: the file owns its buffer and frees it, an attached one too.
// Errors: none are reported. Allocations are not checked; a fixed buffer drops what does not fit.
#ifndef WINDOWS_MEMFILE_H
#define WINDOWS_MEMFILE_H

#include <stdlib.h>

#include <Windows/types.h>

class CMemFile {
public:
    // Origins for Seek.
    enum { begin = 0, current = 1, end = 2 };

    // An empty file that grows in steps of growBytes; 0 makes it fixed at its present size of 0. Nothing is
    // allocated until the first write or seek needs it.
    CMemFile(unsigned int growBytes = 1024);

    // An empty file over buffer, which has size bytes from malloc and belongs to the file from now on. Its
    // bytes are room, not content. growBytes 0 keeps it at that size.
    CMemFile(unsigned char* buffer, unsigned int size, unsigned int growBytes);

    // Frees the buffer.
    virtual ~CMemFile();

    CMemFile(const CMemFile&) = delete;
    CMemFile& operator=(const CMemFile&) = delete;

    // Puts another buffer (from malloc) in place; length and position stay. The old buffer is neither freed
    // nor kept: detach it first.
    void Attach(unsigned char* buffer, unsigned int size, unsigned int growBytes);

    // Hands the buffer to the caller, who frees it with free(). Length, position and growth step stay.
    unsigned char* Detach();

    // Makes the buffer newSize bytes large if it is smaller.
    void Grow(unsigned int newSize);

    // Moves the position to offset bytes from the origin (0 begin, 1 current, 2 end; any other leaves it) and
    // returns it. A position beyond the buffer makes the buffer exactly that large. The length does not
    // change.
    long Seek(long offset, unsigned int origin);

    // Moves the position to 0.
    void SeekToBegin() { Seek(0, begin); }

    // Returns the length.
    unsigned int SeekToEnd() { return static_cast<unsigned int>(Seek(0, end)); }

    // The bytes of content, and where the next read or write takes place.
    unsigned int GetLength() const { return m_uiFileLength; }
    unsigned int GetPosition() const { return m_uiPosition; }

    // The buffer, which still belongs to the file; NULL when nothing is allocated. It may move with any
    // write.
    unsigned char* GetBufferPtr() const { return m_pBuffer; }

    // Frees the buffer. Length, position and growth step stay, as with Detach.
    void Close() { free(Detach()); }

    // Copies at most count bytes from the position and advances it; returns how many. The position must not
    // be beyond the length.
    unsigned int Read(void* dest, unsigned int count);

    // Writes count bytes at the position and advances it. A growing file grows by whole steps; a fixed one
    // takes what fits and drops the rest.
    void Write(const void* data, unsigned int count);

    // The contents as NUL-terminated text; it belongs to the file. Writes a NUL at the position, and takes it
    // out of the position and length again, unless the last byte is NUL already. So with the position at the
    // end nothing is lost; elsewhere the NUL replaces a byte and the length drops by one. On a full fixed
    // buffer the NUL is dropped, yet position and length still go back by one.
    unsigned char* GetAsStr();

    // Writes the formatted arguments, of any length, without a NUL.
    void WriteF(const char* format, ...) WINDOWS_PRINTF_FORMAT(2, 3);

    // Writes a text with the five characters < > & ' " as XML entities.
    void WriteStrEntities(const char* text);

    // Formats like WriteF and writes the result like WriteStrEntities.
    void WriteEntitiesF(const char* format, ...) WINDOWS_PRINTF_FORMAT(2, 3);

    // Writes a description and the contents to the file at path, replacing it. Says nothing on failure.
    void Dump(const char* path);

    int m_nOpen;                 // 1 with a buffer attached or owned, 0 after Detach
    unsigned int m_uiGrowBytes;  // 0: fixed
    unsigned int m_uiBufferSize; // bytes allocated
    unsigned int m_uiFileLength; // bytes of content
    unsigned int m_uiPosition;   // where the next read or write takes place
    unsigned char* m_pBuffer;    // from malloc; NULL when nothing is allocated

private:
    void WriteBeyondBuffer(const void* data, unsigned int count);
    void WriteIntoBuffer(const void* data, unsigned int count);
    unsigned int StepsUpTo(unsigned int required) const;
};

#endif
