// Capture files: pcapng, with the user link type and one message in each packet.
#pragma once

#include "tools/observe/protocol.hpp"

#include <cstddef>
#include <cstdio>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace observe {

using ByteView = std::span<const unsigned char>;

// A message on its way into a capture.  The payload stands in two pieces.
struct Captured {
    CaptureHeader header;
    uint64_t time_ns; // since 1970
    ByteView head{};
    ByteView body{};

    std::size_t size() const { return head.size() + body.size(); }
};

// What a file begins with.  The program's name and version are followed by the fingerprint
// of the wire description.
std::string file_head(std::string_view program);

// The block of a message of which so many bytes of payload are kept.
std::size_t block_size(std::size_t kept);
void write_block(const Captured &message, std::size_t kept, unsigned char *to);

// A message out of a capture.
struct Recorded {
    CaptureHeader header{};
    uint64_t time_ns = 0;
    std::string_view payload{};

    bool is_request() const { return header.kind == kind_request; }
    bool is_cut() const { return payload.size() < header.total; }
};

// Takes the block at the front.  Returns false when the bytes do not begin with the whole
// block of a message.
bool take_block(std::string_view &bytes, Recorded &message);

// Writes a file as the messages come.  After a failure nothing more is written.
class CaptureWriter {
public:
    CaptureWriter() = default;
    CaptureWriter(const CaptureWriter &) = delete;
    CaptureWriter &operator=(const CaptureWriter &) = delete;
    ~CaptureWriter() { close(); }

    // Creates a file that only its owner can read, or empties the one that is there; "-" is
    // standard output.  Returns false with errno.
    bool open(const std::string &path, std::string_view program);
    // The same for a program that must not wait for a reader: regular files alone.
    bool open_regular(const std::string &path, std::string_view program);
    bool is_open() const { return file_ != nullptr; }
    bool write(const Captured &message);
    bool write_blocks(std::string_view blocks);
    bool flush();
    bool close();

private:
    bool begin(int descriptor, std::string_view program);
    bool put(const void *bytes, std::size_t size);

    std::FILE *file_ = nullptr;
    bool has_failed_ = false;
};

// Reads a file, a message at a time.  The memory that it takes is that of the largest.
class CaptureReader {
public:
    // "-" is standard input.  Throws tools::BadInput.
    explicit CaptureReader(const std::string &path);
    CaptureReader(const CaptureReader &) = delete;
    CaptureReader &operator=(const CaptureReader &) = delete;
    ~CaptureReader();

    // The message is valid until the next call.  Returns false at the end of the file; throws
    // tools::BadInput when there is something else.
    bool next(Recorded &message);

private:
    [[noreturn]] void fail(std::string_view what) const;
    bool read_block();
    void read_interface();

    std::string path_;
    std::FILE *file_;
    std::string block_{};
    uint64_t offset_ = 0;
    bool has_section_ = false;
};

} // namespace observe
