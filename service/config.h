#pragma once

#include <map>
#include <string>

// Reader of "key = value" files (the client's pid file, the log level file).
class Config {
public:
    Config();
    ~Config();
    int read(const std::string& path);
    std::string& operator[](const std::string& key);
    int parse(char* line, std::string& key, std::string& value);
    static bool is_key_char(unsigned char c);
    static bool is_value_char(unsigned char c);
    static bool is_space(unsigned char c);

    std::map<std::string, std::string> values;  // public: callers and tests read it
    bool keep_quotes;
};
