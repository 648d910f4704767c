/*
 * Reading a whole file named by the user or by a scene: only a regular file
 * (a folder, FIFO, device or socket is refused without waiting on it) and
 * only up to a size limit, so that no name can make the renderer block or
 * read until memory runs out.
 */
#ifndef DRUXHOST_FILE_READ_H
#define DRUXHOST_FILE_READ_H

#include <cstdint>
#include <string>

namespace druxhost {

/* Largest scene file and OBJ model read, in bytes. */
inline constexpr uint64_t kSceneFileLimit = 256ull << 20;
inline constexpr uint64_t kObjFileLimit = 1ull << 30;

/* The bytes of the regular file `path`.  Throws std::runtime_error with the
   reason ("cannot open ...: No such file or directory", "... is a folder,
   not a regular file", "... is 300 MiB, more than the 256 MiB a <what> may
   have"), never naming the path: the caller adds it. */
std::string readRegularFile(const std::string &path, uint64_t limit, const char *what);

/* Creates the folder `dir` and any folder above it that is missing; true
   when `dir` is a folder afterwards (errno says why not otherwise). */
bool makeDirs(const std::string &dir);

} // namespace druxhost

#endif
