// CSocket's receive functions: the input's bytes arrive in pieces that the input chooses, and what is
// received is held against a second reader of the frames.
//
// The whole stream waits in a socket; recv() stands in front of the C library's and hands it out piece by
// piece, so that the reader never waits for another thread.
#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include <Windows/Socket.h>
#include <Windows/bstr.h>

#include "Input.h"

namespace {

// How the stream arrives. The pieces repeat.
struct Arrival {
    std::string pieces; // their sizes, less one
    size_t next = 0;
    bool isLate = false;  // the next look at the socket finds nothing
    bool isReset = false; // the stream ends in a reset

    size_t Piece(size_t wanted) {
        if (pieces.empty())
            return wanted;
        const size_t piece = 1 + static_cast<uint8_t>(pieces[next++ % pieces.size()]);
        return std::min(wanted, piece);
    }
};

Arrival arrival;

} // namespace

extern "C" ssize_t recv(int fd, void* to, size_t count, int flags) {
    const bool peeks = (flags & MSG_PEEK) != 0;
    if (peeks && arrival.isLate) {
        arrival.isLate = false;
        errno = EAGAIN;
        return -1;
    }
    const ssize_t received = recvfrom(fd, to, peeks ? count : arrival.Piece(count), flags, nullptr, nullptr);
    if (received != 0 || !arrival.isReset)
        return received;
    errno = ECONNRESET;
    return -1;
}

namespace {

constexpr int kError = -1;
constexpr int kClosed = -2;

// What a receive function is to return, and the payload if that is above 0.
struct Expected {
    int result;
    std::string payload;
};

// Reads frames from the stream by themselves.
class Reference {
public:
    explicit Reference(const std::string& stream) : m_stream(stream) {}

    size_t Left() const { return m_stream.size() - m_at; }

    // Whether the next frame's payload has this length.
    bool ComesNext(int length) const {
        return Left() >= 4 && static_cast<int>(fuzz::LengthAt(m_stream, m_at)) == length;
    }

    // The length of the next frame's payload, or what stands in for it; the prefix is read.
    int Length() {
        if (Left() == 0)
            return kClosed;
        if (Left() < 4) {
            m_at = m_stream.size();
            return arrival.isReset ? kError : kClosed;
        }
        m_at += 4;
        return static_cast<int>(fuzz::LengthAt(m_stream, m_at - 4));
    }

    Expected Frame() {
        const int length = Length();
        if (length < 1)
            return {length, ""};
        const size_t begin = m_at;
        if (Skip(static_cast<size_t>(length)) < static_cast<size_t>(length))
            return {arrival.isReset ? kError : kClosed, ""};
        return {length, m_stream.substr(begin, static_cast<size_t>(length))};
    }

    // So many bytes, or what is left; returns how many.
    size_t Skip(size_t count) {
        count = std::min(count, Left());
        m_at += count;
        return count;
    }

private:
    const std::string m_stream;
    size_t m_at = 0;
};

class Reader {
public:
    Reader(fuzz::Input& input, const std::string& stream) : m_input(input), m_reference(stream) {
        int ends[2];
        fuzz::Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0,
                      "there is a socket pair");
        fuzz::Require(send(ends[1], stream.data(), stream.size(), 0) == static_cast<ssize_t>(stream.size()),
                      "the stream fits into a socket");
        close(ends[1]);
        m_socket->m_fd = ends[0];
    }

    ~Reader() {
        SysFreeString(m_text);
        delete[] m_block.m_pData;
    }

    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Until the stream has ended or cannot be followed any more.
    void Run() {
        for (int result = 0; result >= 0;) {
            m_blocks = m_input.OneIn(2);
            m_socket->SetBlockingMode(m_blocks);
            const bool waits = m_input.OneIn(2);
            arrival.isLate = m_input.OneIn(4);
            const bool seesNothing = arrival.isLate && !waits;
            switch (m_input.Below(4)) {
            case 0:
                result = Block(waits, seesNothing);
                break;
            case 1:
                result = Length(waits, seesNothing);
                break;
            default:
                result = Text(waits, seesNothing);
                break;
            }
            if (result >= 0)
                RequireMode();
        }
    }

private:
    // The prefix alone; the payload is taken off the socket.
    int Length(bool waits, bool seesNothing) {
        const int expected = seesNothing ? 0 : m_reference.Length();
        models::Agree(m_socket->ReceiveLength(waits, m_input.Below(2)), expected, "ReceiveLength");
        if (expected > 0) {
            std::string payload(m_reference.Skip(static_cast<size_t>(expected)), '\0');
            recvfrom(m_socket->m_fd, &payload[0], payload.size(), MSG_WAITALL, nullptr, nullptr);
        }
        return expected;
    }

    int Text(bool waits, bool seesNothing) {
        const Expected expected = seesNothing ? Expected{0, ""} : m_reference.Frame();
        const BSTR before = m_text;
        models::Agree(m_socket->Receive(m_text, waits, m_input.Below(2)), expected.result, "Receive");
        if (expected.result < 1) {
            models::Agree(m_text == before, true, "the text stays as it is");
            return expected.result;
        }
        models::Agree(std::string(m_text), std::string(expected.payload.c_str()), "text");
        models::Agree(SysStringLen(m_text), strlen(m_text), "length of the text");
        return expected.result;
    }

    int Block(bool waits, bool seesNothing) {
        if (m_reference.ComesNext(m_block.m_nLength)) {
            delete[] m_block.m_pData; // the caller's part, where the lengths are equal
            m_block = ReceivedDataBlock();
        }
        const Expected expected = seesNothing ? Expected{0, ""} : m_reference.Frame();
        const ReceivedDataBlock kept = m_block;
        models::Agree(m_socket->ReceiveBlock(m_block, waits, m_input.Below(2)), expected.result,
                      "ReceiveBlock");
        if (expected.result > 0) {
            models::Agree(m_block.m_nLength, expected.result, "length of the block");
            models::Agree(memcmp(m_block.m_pData, expected.payload.data(), expected.payload.size()), 0,
                          "block");
        } else if (m_block.m_pData != kept.m_pData || m_block.m_nLength != kept.m_nLength) {
            models::Agree(m_block.m_pData == nullptr && m_block.m_nLength == 0, true,
                          "a failed block is empty");
        }
        return expected.result;
    }

    // A socket's mode is its owner's, whatever a receive function made of it meanwhile.
    void RequireMode() const {
        const bool blocks = (fcntl(m_socket->m_fd, F_GETFL) & O_NONBLOCK) == 0;
        models::Agree(blocks, m_blocks, "the blocking mode");
    }

    fuzz::Input& m_input;
    Reference m_reference;
    std::unique_ptr<CSocket> m_socket{new CSocket};
    BSTR m_text = nullptr;
    ReceivedDataBlock m_block;
    bool m_blocks = true;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, std::min<size_t>(size, 0x10000));
    arrival = Arrival();
    arrival.isReset = input.OneIn(4);
    arrival.pieces = input.Bytes(input.Below(8));
    const std::string choices = input.Bytes(16);
    std::string stream = input.Bytes(input.Left());
    fuzz::TameLengths(stream);
    fuzz::Input decisions(reinterpret_cast<const uint8_t*>(choices.data()), choices.size());
    try {
        Reader(decisions, stream).Run();
    } catch (const models::Disagreement& disagreement) {
        fuzz::Fail(disagreement.what());
    }
    return 0;
}
