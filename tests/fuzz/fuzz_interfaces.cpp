// fuzz_interfaces.cpp - the interface database, in any form, changed and cut while it is mapped.
//
// An input is: 16 bytes for the header, a flag byte (keep the header right; length of the file), then record contents.
// Each query answers -1 for an interface that does not exist or lacks what is asked for, whatever the file holds.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "fuzz_card.h"
#include "if_mgr.h"

namespace
{
constexpr std::size_t HEADER = 64, RECORD = 32, RECORDS = 8192, BYTES = HEADER + RECORD * RECORDS;
constexpr std::uint32_t RIGHT[] = {0x49464442, 1, RECORD, RECORDS};
constexpr std::uint32_t IDS[] = {0, 1, 2, 3, 8190, 8191, 8192, 0xFFFF, 0x80000000, 0xFFFFFFFF};

std::uint32_t word_of(const std::vector<std::uint8_t> &image, std::uint32_t ifid, std::size_t word)
{
    std::uint32_t value = 0;
    std::memcpy(&value, image.data() + HEADER + ifid * RECORD + 4 * word, sizeof value);
    return value;
}

void query(const std::vector<std::uint8_t> &image, bool right, std::uint32_t ifid)
{
    std::uint32_t mode = 0, scratch = 0, address = 0, mask = 0;
    const int has_mode = if_get_address(ifid, &mode, &scratch), has_address = if_get_ip(ifid, &address, &mask);
    const int status = if_get_status(ifid);
    const std::int32_t ctx = if_get_context_id(ifid);
    (void)if_get_bvi(ifid);
    (void)if_get_vlanid(ifid);
    const bool there = right && ifid < RECORDS && (word_of(image, ifid, 0) & 1) == 0;
    const std::uint32_t flags = there ? word_of(image, ifid, 1) : 0;
    if ((has_mode == 0) != ((flags & 1) != 0) || (has_address == 0) != ((flags & 5) == 5))
        fuzz_fail("an interface that is not there, or one that is");
    if (status != ((flags & 1) == 0 ? -1 : (flags & 2) != 0 ? 1 : 0))
        fuzz_fail("status");
    if ((flags & 9) != 9 && ctx != -1)
        fuzz_fail("a context out of nothing");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_card_boot();
    static const int fd = open(fuzz_card_file("interfaces").c_str(), O_RDWR | O_CLOEXEC);
    fuzz_input input{{data, size}};
    std::vector<std::uint8_t> image(BYTES);
    const std::span<const std::uint8_t> header = input.run(16);
    std::copy(header.begin(), header.end(), image.begin());
    const std::uint8_t kind = input.byte();
    if ((kind & 1) != 0)
        std::memcpy(image.data(), RIGHT, sizeof RIGHT);
    for (std::uint32_t ifid : {0u, 1u, 2u, 3u, 8190u, 8191u}) {
        const std::span<const std::uint8_t> record = input.run(RECORD);
        std::copy(record.begin(), record.end(), image.begin() + static_cast<std::ptrdiff_t>(HEADER + ifid * RECORD));
        image[HEADER + ifid * RECORD] &= ifid == 3 && kind >= 0xF8 ? 0xFF : 0xFE; // a torn one takes 10 ms a query
    }
    const std::size_t length = (kind & 4) != 0 ? BYTES - 1 - kind : BYTES;
    const bool right = std::memcmp(image.data(), RIGHT, sizeof RIGHT) == 0 && length == BYTES;
    // Cut first: the one that is mapped must not be read any more.
    if (ftruncate(fd, 0) != 0 || if_get_status(1) != -1)
        fuzz_fail("an interface in an empty file");
    if (pwrite(fd, image.data(), length, 0) != static_cast<ssize_t>(length))
        fuzz_fail("write");
    for (const std::uint32_t ifid : IDS)
        query(image, right, ifid);
    return 0;
}
