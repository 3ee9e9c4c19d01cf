// SPDX-License-Identifier: MIT
#ifndef DORVE_GATHER_FILES_H_
#define DORVE_GATHER_FILES_H_

#include <string>
#include <vector>

#include "dorve/facts/access.h"
#include "dorve/facts/device.h"

namespace dorve {

/// What is at a path. Links are followed. Opens nothing that could block or act.
FileInfo inspect(const std::string& path);

/// The path without links; empty if there is nothing at the path.
std::string canonical(const std::string& path);

/// `path`, without links, and the directories above it up to `top` or the root directory.
std::vector<FileInfo> inspectUpTo(const std::string& path, const std::string& top);

/// The file that PATH leads to for the name of a program; empty if there is none.
std::string findProgram(const std::string& name);

/// The bytes of a regular file; empty for any other file, and for one of more than 4 MiB.
std::string readText(const std::string& path);

/// The last `size` bytes of a regular file.
std::string readEnd(const std::string& path, std::size_t size);

/// The line that a failed command names on standard error, with its text.
FaultyLine faultIn(const Outcome& outcome);

}  // namespace dorve

#endif  // DORVE_GATHER_FILES_H_
