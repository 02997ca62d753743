#include "tools/observe/capture.hpp"

#include "tools/json/bad_input.hpp"
#include "tools/observe/fingerprint.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace observe {

namespace {

// pcapng: a block is its type, its length, the body, and its length again.
constexpr uint32_t section_block = 0x0a0d0d0a;
constexpr uint32_t interface_block = 1;
constexpr uint32_t packet_block = 6;
constexpr uint32_t byte_order = 0x1a2b3c4d;
constexpr uint16_t link_type = 147; // the first one for private use
constexpr uint16_t option_program = 4;
constexpr uint16_t option_resolution = 9; // of times, as a negative power of ten
constexpr uint16_t option_flags = 2;      // of a packet: its direction
constexpr uint32_t flag_inbound = 1;
constexpr uint32_t flag_outbound = 2;
constexpr uint8_t nanoseconds = 9;
constexpr uint32_t largest_block = 0x40001000; // the largest message and what is around it

constexpr std::size_t padding(std::size_t size) { return (4 - size % 4) % 4; }

// Before and behind the bytes of a packet.
struct PacketHead {
    uint32_t type;
    uint32_t length;
    uint32_t interface;
    uint32_t time_high;
    uint32_t time_low;
    uint32_t captured;
    uint32_t original;
    CaptureHeader header;
};
static_assert(sizeof(PacketHead) == 28 + sizeof(CaptureHeader));

struct PacketTail {
    uint16_t option;
    uint16_t option_length;
    uint32_t flags;
    uint32_t end_of_options;
    uint32_t length;
};
static_assert(sizeof(PacketTail) == 16);

PacketHead head_of(const Captured &message, std::size_t kept)
{
    PacketHead head{};
    head.type = packet_block;
    head.length = static_cast<uint32_t>(block_size(kept));
    head.time_high = static_cast<uint32_t>(message.time_ns >> 32);
    head.time_low = static_cast<uint32_t>(message.time_ns);
    head.captured = static_cast<uint32_t>(sizeof(CaptureHeader) + kept);
    head.original = static_cast<uint32_t>(sizeof(CaptureHeader)) + message.header.total;
    head.header = message.header;
    return head;
}

// Calls put(bytes, size) for the pieces of a block.
template <class Put> void for_each_piece(const Captured &message, std::size_t kept, Put put)
{
    constexpr char zeros[4] = {};
    const PacketHead head = head_of(message, kept);
    const std::size_t of_head = std::min(kept, message.head.size());
    const PacketTail tail{option_flags, sizeof(uint32_t),
                          message.header.kind == kind_request ? flag_inbound : flag_outbound, 0, head.length};
    put(&head, sizeof head);
    put(message.head.data(), of_head);
    put(message.body.data(), kept - of_head);
    put(zeros, padding(kept));
    put(&tail, sizeof tail);
}

template <class T> void append(std::string &to, T value)
{
    to.append(reinterpret_cast<const char *>(&value), sizeof value);
}

void append_option(std::string &to, uint16_t code, std::string_view value)
{
    append(to, code);
    append(to, static_cast<uint16_t>(value.size()));
    to += value;
    to.append(padding(value.size()), '\0');
}

std::string block(uint32_t type, const std::string &body)
{
    const auto length = static_cast<uint32_t>(body.size() + 12);
    std::string bytes;
    append(bytes, type);
    append(bytes, length);
    bytes += body;
    append(bytes, length);
    return bytes;
}

template <class T> T load(std::string_view bytes, std::size_t at)
{
    T value{};
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

bool parse_packet(std::string_view block, Recorded &message)
{
    if (block.size() < sizeof(PacketHead) + sizeof(uint32_t))
        return false;
    const auto head = load<PacketHead>(block, 0);
    if (head.captured < sizeof(CaptureHeader) ||
        head.captured - sizeof(CaptureHeader) > block.size() - sizeof head - 4 || head.header.magic != capture_magic)
        return false;
    message.header = head.header;
    message.time_ns = uint64_t{head.time_high} << 32 | head.time_low;
    message.payload = block.substr(sizeof head, head.captured - sizeof(CaptureHeader));
    return message.payload.size() <= head.header.total;
}

} // namespace

std::string file_head(std::string_view program)
{
    std::string section;
    append(section, byte_order);
    append(section, uint16_t{1}); // version 1.0
    append(section, uint16_t{0});
    append(section, ~uint64_t{0}); // length of the section: not known
    append_option(section, option_program, fmt::format("{} (wire {})", program, show_fingerprint(wire_fingerprint())));
    append(section, uint32_t{0});
    std::string interface;
    append(interface, link_type);
    append(interface, uint16_t{0});
    append(interface, uint32_t{0}); // no limit on the length of packets
    append_option(interface, option_resolution, std::string(1, nanoseconds));
    append(interface, uint32_t{0});
    return block(section_block, section) + block(interface_block, interface);
}

std::size_t block_size(std::size_t kept) { return sizeof(PacketHead) + kept + padding(kept) + sizeof(PacketTail); }

void write_block(const Captured &message, std::size_t kept, unsigned char *to)
{
    std::size_t written = 0;
    for_each_piece(message, kept, [&](const void *bytes, std::size_t size) {
        if (size != 0)
            std::memcpy(to + written, bytes, size);
        written += size;
    });
}

bool take_block(std::string_view &bytes, Recorded &message)
{
    if (bytes.size() < 12)
        return false;
    const auto length = load<uint32_t>(bytes, 4);
    if (length > bytes.size() || load<uint32_t>(bytes, 0) != packet_block ||
        !parse_packet(bytes.substr(0, length), message))
        return false;
    bytes.remove_prefix(length);
    return true;
}

// ---- Writing

constexpr int create_flags = O_WRONLY | O_CREAT | O_NOCTTY | O_CLOEXEC;

bool CaptureWriter::open(const std::string &path, std::string_view program)
{
    return begin(path == "-" ? dup(STDOUT_FILENO) : ::open(path.c_str(), create_flags | O_TRUNC, 0600), program);
}

bool CaptureWriter::open_regular(const std::string &path, std::string_view program)
{
    const int descriptor = ::open(path.c_str(), create_flags | O_NONBLOCK, 0600);
    struct stat file {};
    if (descriptor < 0)
        return false;
    if (fstat(descriptor, &file) == 0 && S_ISREG(file.st_mode) && ftruncate(descriptor, 0) == 0)
        return begin(descriptor, program);
    ::close(descriptor);
    errno = EINVAL;
    return false;
}

// Becomes the owner of the descriptor.
bool CaptureWriter::begin(int descriptor, std::string_view program)
{
    file_ = descriptor >= 0 ? fdopen(descriptor, "wb") : nullptr;
    if (file_ == nullptr)
        return false;
    constexpr std::size_t buffer_size = std::size_t{256} * 1024;
    (void)std::setvbuf(file_, nullptr, _IOFBF, buffer_size);
    const std::string head = file_head(program);
    return put(head.data(), head.size());
}

bool CaptureWriter::put(const void *bytes, std::size_t size)
{
    if (file_ != nullptr && !has_failed_ && size != 0)
        has_failed_ = std::fwrite(bytes, 1, size, file_) != size;
    return file_ != nullptr && !has_failed_;
}

bool CaptureWriter::write(const Captured &message)
{
    for_each_piece(message, message.size(), [&](const void *bytes, std::size_t size) { put(bytes, size); });
    return !has_failed_;
}

bool CaptureWriter::write_blocks(std::string_view blocks) { return put(blocks.data(), blocks.size()); }

bool CaptureWriter::flush()
{
    if (file_ != nullptr && std::fflush(file_) != 0)
        has_failed_ = true;
    return !has_failed_;
}

bool CaptureWriter::close()
{
    if (file_ != nullptr && std::fclose(file_) != 0)
        has_failed_ = true;
    file_ = nullptr;
    return !has_failed_;
}

// ---- Reading

CaptureReader::CaptureReader(const std::string &path)
    : path_(path), file_(path == "-" ? stdin : std::fopen(path.c_str(), "rbe"))
{
    if (file_ == nullptr)
        fail(std::strerror(errno));
}

CaptureReader::~CaptureReader()
{
    if (file_ != nullptr && file_ != stdin)
        (void)std::fclose(file_);
}

void CaptureReader::fail(std::string_view what) const
{
    throw tools::BadInput(fmt::format("{}: offset {}: {}", path_, offset_, what));
}

// Reads a whole block.  Returns false at the end of the file.
bool CaptureReader::read_block()
{
    constexpr std::size_t head_size = 8;
    offset_ += block_.size();
    block_.resize(head_size);
    const std::size_t read = std::fread(block_.data(), 1, head_size, file_);
    if (read == 0 && std::ferror(file_) == 0)
        return false;
    if (read != head_size)
        fail("the file ends within a block");
    const auto type = load<uint32_t>(block_, 0);
    const auto length = load<uint32_t>(block_, 4);
    if (!has_section_ && type != section_block)
        fail("no capture file: it does not begin with a section");
    if (length < head_size + 4 || length % 4 != 0 || length > largest_block)
        fail(type == section_block ? "written on a machine of the other byte order, or damaged" : "a damaged block");
    // In steps, so that a damaged length does not take memory that the file does not fill.
    constexpr std::size_t step = std::size_t{1024} * 1024;
    while (block_.size() < length) {
        const std::size_t have = block_.size();
        const std::size_t some = std::min<std::size_t>(step, length - have);
        block_.resize(have + some);
        if (std::fread(block_.data() + have, 1, some, file_) != some)
            fail("the file ends within a block");
    }
    has_section_ = true;
    return true;
}

void CaptureReader::read_interface()
{
    if (block_.size() < 20 || load<uint16_t>(block_, 8) != link_type)
        fail("the capture has another link type");
    const std::string_view options(block_.data() + 16, block_.size() - 20);
    if (options.size() < 5 || load<uint16_t>(options, 0) != option_resolution ||
        static_cast<uint8_t>(options[4]) != nanoseconds)
        fail("times are not in ns: no capture of this service");
}

bool CaptureReader::next(Recorded &message)
{
    while (read_block()) {
        switch (load<uint32_t>(block_, 0)) {
        case section_block:
            if (block_.size() < 16 || load<uint32_t>(block_, 8) != byte_order)
                fail("written on a machine of the other byte order");
            break;
        case interface_block:
            read_interface();
            break;
        case packet_block:
            if (!parse_packet(block_, message))
                fail("a packet that is no message of the policy service");
            return true;
        default: // names, statistics and the like
            break;
        }
    }
    return false;
}

} // namespace observe
