#pragma once

#include <archive.h>
#include <archive_entry.h>

// The archive functions the extractor calls. The library is opened on first use rather than
// linked: an ordinary login never unpacks an archive, and loading the library with everything
// it depends on would slow every login down.
#define LC_ARCHIVE_FUNCTIONS(X)        \
    X(archive_error_string)            \
    X(archive_entry_pathname)          \
    X(archive_entry_set_pathname)      \
    X(archive_read_close)              \
    X(archive_read_data_block)         \
    X(archive_read_data_skip)          \
    X(archive_read_extract2)           \
    X(archive_read_free)               \
    X(archive_read_new)                \
    X(archive_read_next_header)        \
    X(archive_read_open_filename)      \
    X(archive_read_support_filter_all) \
    X(archive_read_support_format_all) \
    X(archive_write_data_block)        \
    X(archive_write_disk_new)          \
    X(archive_write_disk_set_options)  \
    X(archive_write_finish_entry)      \
    X(archive_write_free)

struct ArchiveLibrary {
#define LC_ARCHIVE_MEMBER(name) decltype(&::name) name;
    LC_ARCHIVE_FUNCTIONS(LC_ARCHIVE_MEMBER)
#undef LC_ARCHIVE_MEMBER
};

// The loaded library, or null when it cannot be opened or lacks a function (logged once).
// Safe to call from any thread; the library stays loaded until the process ends.
const ArchiveLibrary* GetArchiveLibrary();
