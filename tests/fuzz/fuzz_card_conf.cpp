// fuzz_card_conf.cpp - the card's settings file, as a person or a program may have written it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include "card_dir.h"
#include "fuzz_card.h"

namespace
{
std::string &file_name()
{
    static auto *const name = new std::string;
    return *name;
}

void make_file()
{
    const char *const parent = std::getenv("TMPDIR");
    file_name() = std::string(parent != nullptr ? parent : "/tmp") + "/card_conf.XXXXXX";
    const int fd = mkstemp(file_name().data());
    if (fd < 0)
        std::abort();
    close(fd);
    std::atexit([] { (void)unlink(file_name().c_str()); });
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (file_name().empty())
        make_file();
    std::FILE *const file = std::fopen(file_name().c_str(), "w");
    if (file == nullptr || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0)
        std::abort();
    const card_conf conf = card_conf_read(file_name());
    if (conf.num_ixp > 2 || conf.slot == 0 || conf.slot > 0x7FFFFFFF || conf.rpc_timeout_ms == 0 ||
        conf.rpc_timeout_ms > 0x7FFFFFFF || conf.wired_phys_base % 0x1000 != 0 || conf.wired_phys_base > 0xFEC00000)
        std::abort(); // a setting out of its range was taken
    return 0;
}
