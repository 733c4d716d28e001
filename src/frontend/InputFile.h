#pragma once
// The files a run reads (image, mask, initial segmentation, ground truth,
// configuration), checked before anything reads them: each must be a regular
// file.  A pipe or a device is refused without blocking (a FIFO with no writer
// would hold open() forever, /dev/zero would never end).

#include <cstddef>
#include <string>

namespace dhc {

// The largest configuration file read (a configuration is a few kilobytes;
// a class structure of many thousands of classes still fits).
constexpr size_t kMaxConfigBytes = size_t{16} << 20;

// Throws an InputError (kExitInput) unless path opens for reading and is a
// regular file: "cannot open ROLE "path": REASON" (the system's words, "it is
// a directory", "not a regular file").  role names the file in the message.
void checkInputFile(const std::string& path, const std::string& role);

// The whole text of a regular file of at most maxBytes, checked as above and
// read through the same descriptor; a larger file is refused naming both sizes.
std::string readInputFile(const std::string& path, const std::string& role, size_t maxBytes);

}  // namespace dhc
