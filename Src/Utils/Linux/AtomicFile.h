// Not public API. Whole-file replacement that a concurrent reader never sees half done.
#ifndef VOK_SRC_UTILS_LINUX_ATOMICFILE_H
#define VOK_SRC_UTILS_LINUX_ATOMICFILE_H

#include <string>

namespace vok {

// Replaces path with content: writes a temporary file ".NAME.PID.N.tmp" in path's directory,
// flushes it to disk, renames it over path and flushes the directory. On failure returns false
// with *error (when not NULL) naming the step and the system's reason, removes the temporary
// file and leaves path as it was. Any thread; concurrent writers of one path each write whole.
bool WriteFileAtomically(const std::string& path, const std::string& content, std::string* error);

}  // namespace vok

#endif  // VOK_SRC_UTILS_LINUX_ATOMICFILE_H
