#include "extractor/extractor.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdio>

#include <QString>

#include "extractor/archive-library.h"

#include "launcher/notify-adapter.h"
#include "launcher/str-table.h"
#include "log/log.h"

namespace {

const char kComponent[] = "extractor_debug";

// Reads in blocks of this size; the package sits on a local disk.
const size_t kReadBlockSize = 10240;

// Rows of the string table shown while unpacking: "%1 is initializing..." and the
// application name.
const int kInitializingTextId = 716;
const int kAppNameTextId = 531;

// Replace what is in the way, never climb out with "..". Owner, permissions, times, ACLs,
// flags and extended attributes are left to the process: the copy belongs to the user who
// runs the launcher, and its files carry the time they were unpacked.
const int kDiskWriterOptions =
    ARCHIVE_EXTRACT_UNLINK | ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_MAC_METADATA;
static_assert(kDiskWriterOptions == 0x2210, "disk writer options changed");

// A reader that recognises every format and compression; null when it cannot be made.
struct archive* NewReader(const ArchiveLibrary* lib) {
    struct archive* reader = lib->archive_read_new();
    if (reader != nullptr) {
        lib->archive_read_support_filter_all(reader);
        lib->archive_read_support_format_all(reader);
    }
    return reader;
}

// Where Count and List log their failures: the texts are the same, the lines their own.
struct ScanLines {
    int invalid, alloc, open;
};

// The common course of Count and List: check the arguments, open the archive and visit every
// entry up to the first header that does not read cleanly (end of archive and damage alike).
// -1 when the archive was not read, else the number of entries visited.
template <typename Visit>
int ScanEntries(const std::string& source, const std::string& target, ScanLines lines,
                Visit visit) {
    // The target is required even though only the source is read: callers always set both.
    if (target.empty() || source.empty()) {
        LOG_AT(ERROR, kComponent, lines.invalid, "Invalid argument\n");
        return -1;
    }
    const ArchiveLibrary* lib = GetArchiveLibrary();
    struct archive* reader = lib == nullptr ? nullptr : NewReader(lib);
    if (reader == nullptr) {
        LOG_AT(ERROR, kComponent, lines.alloc, "Allocate archive failed\n");
        return -1;
    }
    if (lib->archive_read_open_filename(reader, source.c_str(), kReadBlockSize) != ARCHIVE_OK) {
        LOG_AT(ERROR, kComponent, lines.open, "archive_read_open_filename failed: '%s'\n",
               lib->archive_error_string(reader));
        lib->archive_read_free(reader);
        return -1;
    }
    int count = 0;
    struct archive_entry* entry = nullptr;
    while (lib->archive_read_next_header(reader, &entry) == ARCHIVE_OK) {
        ++count;
        visit(entry);
        lib->archive_read_data_skip(reader);
    }
    lib->archive_read_close(reader);
    lib->archive_read_free(reader);
    return count;
}

}  // namespace

Extractor::Extractor() = default;

Extractor::~Extractor() = default;

void Extractor::SetTarget(const std::string& target) {
    this->target = target;
}

void Extractor::SetSource(const std::string& source) {
    this->source = source;
}

int Extractor::copy_data(struct archive* reader, struct archive* writer) {
    const ArchiveLibrary* lib = GetArchiveLibrary();
    if (reader == nullptr || writer == nullptr || lib == nullptr) {
        LOG_AT(ERROR, kComponent, 26, "Invalid Argument\n");
        return -1;
    }
    for (;;) {
        const void* block = nullptr;
        size_t size = 0;
        la_int64_t offset = 0;
        int r = lib->archive_read_data_block(reader, &block, &size, &offset);
        if (r == ARCHIVE_EOF) {
            return 0;
        }
        if (r != ARCHIVE_OK) {
            LOG_AT(ERROR, kComponent, 37, "archive_read_data_block failed: '%s'\n",
                   lib->archive_error_string(reader));
            return -1;
        }
        if (lib->archive_write_data_block(writer, block, size, offset) != ARCHIVE_OK) {
            LOG_AT(ERROR, kComponent, 42, "archive_write_data_block failed: '%s'\n",
                   lib->archive_error_string(writer));
            return -1;
        }
    }
}

int Extractor::Count() {
    // A damaged archive counts the entries before the damage; Extract then fails there.
    return ScanEntries(source, target, {59, 64, 76}, [](struct archive_entry*) {});
}

int Extractor::List() {
    const ArchiveLibrary* lib = GetArchiveLibrary();
    const int listed = ScanEntries(source, target, {101, 105, 117}, [lib](struct archive_entry* e) {
        const char* name = lib->archive_entry_pathname(e);  // some formats allow none
        std::printf("%s\n", name ? name : "");
    });
    return listed < 0 ? -1 : 0;
}

int Extractor::Extract() {
    if (source.empty() || target.empty()) {
        LOG_AT(ERROR, kComponent, 155, "Invalid Argument\n");
        return -1;
    }
    LOG_AT(DEBUG, kComponent, 159, "decompress from '%s' to '%s'\n", source.c_str(),
           target.c_str());

    // Set before counting, so the dialog says what is going on even when counting fails.
    Notify_Adapter::GetInstance()->UpdateDialogText(
        StrTable::LoadStr(kInitializingTextId).arg(StrTable::LoadStr(kAppNameTextId)));

    const int total = Count();
    if (total <= 0) {
        LOG_AT(ERROR, kComponent, 166, "Failed to calculate total file numbers, ret: %d\n", total);
        return -1;
    }

    int result = -1;
    const ArchiveLibrary* lib = GetArchiveLibrary();  // loaded: Count succeeded
    struct archive* reader = NewReader(lib);
    if (reader == nullptr) {
        LOG_AT(ERROR, kComponent, 171, "Allocate extractor failed\n");
        return result;
    }
    struct archive* writer = lib->archive_write_disk_new();
    if (writer == nullptr) {
        LOG_AT(ERROR, kComponent, 176, "Allocate extractor failed\n");
        lib->archive_read_free(reader);
        return result;
    }
    lib->archive_write_disk_set_options(writer, kDiskWriterOptions);
    if (lib->archive_read_open_filename(reader, source.c_str(), kReadBlockSize) != ARCHIVE_OK) {
        LOG_AT(ERROR, kComponent, 189, "Failed to read file '%s' ('%s')\n", source.c_str(),
               lib->archive_error_string(reader));
    } else {
        result = UnpackEntries(reader, writer, total);
    }
    lib->archive_read_free(reader);
    lib->archive_write_free(writer);
    return result;
}

int Extractor::UnpackEntries(struct archive* reader, struct archive* writer, int total) {
    const ArchiveLibrary* lib = GetArchiveLibrary();
    Notify_Adapter* notify = Notify_Adapter::GetInstance();
    int current = 0;
    struct archive_entry* entry = nullptr;
    for (;;) {
        int r = lib->archive_read_next_header(reader, &entry);
        if (r == ARCHIVE_EOF) {
            return 0;
        }
        if (r != ARCHIVE_OK) {
            LOG_AT(ERROR, kComponent, 198, "archive_read_next_header failed: '%s'\n",
                   lib->archive_error_string(reader));
            return -1;
        }
        // An empty name would make the target folder itself the entry's path.
        const char* name = lib->archive_entry_pathname(entry);
        if (name == nullptr || *name == '\0') {
            LOG_AT(ERROR, kComponent, 213, "archive_entry_pathname failed");
            return -1;
        }
        // Only the entry's own name moves below the target; link targets stay as stored.
        const std::string path = target + "/" + name;
        lib->archive_entry_set_pathname(entry, path.c_str());
        if (lib->archive_read_extract2(reader, entry, writer) != ARCHIVE_OK) {
            LOG_AT(ERROR, kComponent, 220, "archive_read_extract2 failed: '%s'\n",
                   lib->archive_error_string(writer));
            return -1;
        }
        ++current;
        notify->UpdateProgress(total, current);
        if (lib->archive_write_finish_entry(writer) != ARCHIVE_OK) {
            LOG_AT(ERROR, kComponent, 228, "archive_write_finish_entry failed: '%s'\n",
                   lib->archive_error_string(writer));
            return -1;
        }
    }
}
