#pragma once

#include <string>

struct archive;

// Counts, lists and extracts a package archive below a target folder, with progress.
class Extractor {
public:
    Extractor();
    ~Extractor();
    void SetTarget(const std::string& target);
    void SetSource(const std::string& source);
    int Count();
    int List();
    int Extract();
    int copy_data(struct archive* reader, struct archive* writer);

private:
    // The entry loop of Extract: 0 at the end of the archive, -1 at the first failure.
    int UnpackEntries(struct archive* reader, struct archive* writer, int total);

    std::string target;  // entries are written below it; no trailing "/"
    std::string source;  // the archive file
};
