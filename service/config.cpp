#include "service/config.h"

#include <cstdio>

namespace {

// Lines are read in pieces of at most kLineBuffer - 1 bytes; a longer line becomes several.
constexpr int kLineBuffer = 8192;

}  // namespace

Config::Config() : keep_quotes(false) {}

Config::~Config() = default;

bool Config::is_key_char(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' ||
           c == '_' || c == '.';
}

bool Config::is_value_char(unsigned char c) {
    return c >= 32 && c != 127;
}

bool Config::is_space(unsigned char c) {
    return (c >= 9 && c <= 13) || c == ' ';
}

std::string& Config::operator[](const std::string& key) {
    return values[key];
}

int Config::parse(char* line, std::string& key, std::string& value) {
    auto at = [](const char* p) { return static_cast<unsigned char>(*p); };
    char* p = line;

    while (is_space(at(p)))
        ++p;
    char* key_start = p;
    while (is_key_char(at(p)))
        ++p;
    // Blank lines, comments and a key directly followed by '#' carry nothing to store.
    if (*p == '#' || *p == '\0')
        return 1;

    char* key_end = p;
    while (is_space(at(p)))
        ++p;
    if (*p != '=')
        return 2;
    ++p;
    while (is_space(at(p)))
        ++p;
    if (*p == '\0')
        return 2;

    char quote = 0;
    if (*p == '"' || *p == '\'')
        quote = *p++;
    const char terminator = quote ? quote : ' ';

    char* value_start = p;
    while (is_value_char(at(p)) && *p != terminator)
        ++p;
    char* value_end = p;

    if (quote) {
        if (*p != quote)
            return 2;
        ++p;
    }
    while (is_space(at(p)))
        ++p;
    if (*p != '\0' && *p != '#')
        return 2;

    *key_end = '\0';
    *value_end = '\0';
    key = key_start;
    value = value_start;
    if (keep_quotes && quote)
        value = quote + value + quote;
    return 0;
}

int Config::read(const std::string& path) {
    if (path.empty())
        return -1;
    FILE* fp = fopen(path.c_str(), "re");
    if (!fp)
        return -1;

    int result = 0;
    char line[kLineBuffer];
    std::string key;
    std::string value;
    while (fgets(line, sizeof(line), fp)) {
        int rc = parse(line, key, value);
        if (rc == 0) {
            values[key] = value;
        } else if (rc == 2) {
            // A malformed file is not trusted at all, not even the pairs read before it.
            values.clear();
            result = -1;
            break;
        }
    }
    fclose(fp);
    return result;
}
