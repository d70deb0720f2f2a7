// One line of arbitrary bytes through the key/value grammar.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "service/config.h"

namespace {

void CheckPair(const std::string& key, const std::string& value) {
    for (unsigned char c : key) {
        if (!Config::is_key_char(c))
            abort();
    }
    for (unsigned char c : value) {
        if (!Config::is_value_char(c))
            abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<char> line(data, data + size);
    line.push_back('\0');
    Config config;
    config.keep_quotes = size > 0 && (data[0] & 1);
    std::string key, value;
    int rc = config.parse(line.data(), key, value);
    if (rc < 0 || rc > 2)
        abort();
    if (rc == 0)
        CheckPair(key, value);
    return 0;
}
