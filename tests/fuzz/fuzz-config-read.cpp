// Whole files of arbitrary bytes through the reader (in memory, through an anonymous file).
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "service/config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("config-read", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (fd < 0 || ftruncate(fd, 0) != 0)
        abort();
    if (size > 0 && pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
        abort();

    Config config;
    config.keep_quotes = size > 0 && (data[0] & 1);
    int rc = config.read(path);
    if (rc != 0 && rc != -1)
        abort();
    if (rc == -1 && !config.values.empty())
        abort();
    for (const auto& pair : config.values) {
        for (unsigned char c : pair.first) {
            if (!Config::is_key_char(c))
                abort();
        }
        for (unsigned char c : pair.second) {
            if (!Config::is_value_char(c))
                abort();
        }
    }
    return 0;
}
