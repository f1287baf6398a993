#pragma once
// Turns the paths of a run into the DWARF files of its dSYMs: dSYM bundles
// are used as they are, folders are searched deeply, zip archives are
// unpacked into the temporary directory and searched. Each DWARF file found
// goes to the driver's handler, and is processed, before the search goes on,
// so an archive further down the list is unpacked only once the dSYMs before
// it are through. Nothing here ends the process: a status that ends the run
// (from unpacking, or from the handler) is returned.

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cli/upload_settings.h"

namespace symlift::dsym {
class SUPDSYMFile;
}

namespace symlift::cli {

class RunContext;

enum class PathType {
  DSYMBundle,  // a directory whose name ends in ".dSYM", any case
  Folder,      // any other directory
  ZipArchive,  // a regular file whose name ends in ".zip", any case
};

// One DWARF file of a dSYM bundle.
struct DWARFInput {
  std::string bundlePath;
  std::filesystem::path dwarfPath;
  std::shared_ptr<dsym::SUPDSYMFile> file;  // nothing when the bundle could not be read
  // The errno of opening a DWARF file that is there but cannot be read.
  int readError = 0;
};

// Processes one DWARF input: kExitSuccess to go on, else the run's status.
using DWARFInputHandler = std::function<int(const DWARFInput& input)>;

class PathExpansion {
 public:
  PathExpansion(RunContext& run, const SYLUploadSettings& settings, DWARFInputHandler handle);

  // Told of every DWARF file left out (an Apple dSYM, a file without slices).
  void setSkippedHandler(std::function<void(const DWARFInput& input)> skipped) { skipped_ = std::move(skipped); }

  // Every path in order. recursive: the paths are a searched folder's
  // entries (folders among them are not searched again, other kinds are
  // skipped without a word). kExitSuccess, or the first status that ends
  // the run.
  int processPaths(const std::vector<std::string>& paths, bool recursive);
  // Hands every entry below the folder, at any depth, to processPaths;
  // found says whether there was any entry (false also when the folder
  // cannot be read, with a warning).
  int expandDirectory(const std::string& path, bool& found);
  // Hands each DWARF file of the bundle to the handler, one after another.
  int processDSYMBundle(const std::string& path);
  // Unpacks the archive into "<temporary directory>/<archive path>.unzipped"
  // with the system's unzip and searches the result.
  int processArchive(const std::string& path);

 private:
  RunContext& run_;
  const SYLUploadSettings& settings_;
  DWARFInputHandler handle_;
  std::function<void(const DWARFInput& input)> skipped_;
};

// False, with a warning, when nothing exists at the path; else whether the
// path is of the type.
bool isPathOfType(const std::string& path, PathType type);

// Whether the bundle has a non-empty "Contents/Resources/DWARF" folder
// (warnings say what is wrong; a missing path is silently false).
bool isValidDSYMBundle(const std::string& path);

// "<temporary directory>/<archive path as given>.unzipped"; a path that
// climbs with ".." is made absolute first so the folder stays below the
// temporary directory.
std::string unpackFolderForArchive(const std::string& archivePath);

}  // namespace symlift::cli
