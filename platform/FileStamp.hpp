#pragma once

#include <cstdint>
#include <memory>

#include "platform/Bytes.hpp"

namespace vontu::platform {

// What tells one state of a file from another without reading it: which file it is on its
// device, its length, and when its contents and its status last changed. A file replaced
// whole becomes another file; one rewritten in place keeps its identity, and its length or
// times change unless the rewrite keeps the length and falls within one tick of the file
// system's clock.
struct FileStamp {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modifiedNanoseconds = 0;
    std::int64_t changedNanoseconds = 0;

    bool operator==(const FileStamp&) const = default;
};

// Holds a file open. While it is held, no other file can take the file's identity (device and
// inode), so a path whose stamp equals this one's names this very file. Dropping it closes the
// file.
class FilePin {
public:
    explicit FilePin(FileStamp stamp) : stamp_(stamp) {}
    virtual ~FilePin() = default;
    FilePin(const FilePin&) = delete;
    FilePin& operator=(const FilePin&) = delete;

    // The file's stamp when it was pinned.
    const FileStamp& stamp() const { return stamp_; }

private:
    FileStamp stamp_;
};

// A file's contents together with a pin of the very file that they were read from or
// written to.
struct PinnedContents {
    Bytes contents;
    std::shared_ptr<const FilePin> pin;
};

}  // namespace vontu::platform
