// Arbitrary bytes through the key/value reader: one line through the grammar, or with
// FUZZ_WHOLE_FILE a whole file through read(), kept in memory behind an anonymous file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "service/config.h"

#define CHECK(condition) ((condition) ? (void)0 : abort())

static void CheckPair(const std::string& key, const std::string& value) {
    for (unsigned char c : key)
        CHECK(Config::is_key_char(c));
    for (unsigned char c : value)
        CHECK(Config::is_value_char(c));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Config config;
    config.keep_quotes = size > 0 && (data[0] & 1);
#ifdef FUZZ_WHOLE_FILE
    static const int fd = memfd_create("config-read", MFD_CLOEXEC);
    CHECK(fd >= 0 && ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) == ssize_t(size));
    const int rc = config.read("/proc/self/fd/" + std::to_string(fd));
    CHECK(rc == 0 || (rc == -1 && config.values.empty()));
    for (const auto& [key, value] : config.values)
        CheckPair(key, value);
#else
    std::string line(reinterpret_cast<const char*>(data), size), key, value;
    const int rc = config.parse(line.data(), key, value);
    CHECK(rc >= 0 && rc <= 2);
    if (rc == 0)
        CheckPair(key, value);
#endif
    return 0;
}
