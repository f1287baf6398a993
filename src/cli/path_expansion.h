#pragma once
// Turns the paths of a run into dSYMs for the pipeline: dSYM bundles are used
// as they are, folders are searched deeply, zip archives are unpacked into
// the temporary directory and searched.

#include <string>
#include <vector>

#include "cli/upload_settings.h"

namespace symlift::cli {

enum class PathType {
  DSYMBundle,  // a directory whose name ends in ".dSYM", any case
  Folder,      // any other directory
  ZipArchive,  // a regular file whose name ends in ".zip", any case
};

// False, with a warning, when nothing exists at the path; else whether the
// path is of the type.
bool isPathOfType(const std::string& path, PathType type);

// Hands every entry below the folder, at any depth, to processPaths; false
// when there is none or the folder cannot be read (with a warning).
bool expandDirectory(const std::string& path, const SYLUploadSettings& settings);

// Whether the bundle has a non-empty "Contents/Resources/DWARF" folder
// (warnings say what is wrong; a missing path is silently false).
bool isValidDSYMBundle(const std::string& path);

// Runs one dSYM operation per DWARF file of the bundle, one after another.
void processDSYMBundle(const std::string& path, const SYLUploadSettings& settings);

// Unpacks the archive into "<temporary directory>/<archive path>.unzipped"
// with the system's unzip and searches the result.
void processArchive(const std::string& path, const SYLUploadSettings& settings);

// "<temporary directory>/<archive path as given>.unzipped"; a path that
// climbs with ".." is made absolute first so the folder stays below the
// temporary directory.
std::string unpackFolderForArchive(const std::string& archivePath);

}  // namespace symlift::cli
