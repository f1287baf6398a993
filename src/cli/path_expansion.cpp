#include "cli/path_expansion.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <optional>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "buildenv/task.h"
#include "console/console_log.h"
#include "cli/exit_status.h"
#include "cli/run_context.h"
#include "dsym/bundle.h"
#include "dsym/code_mapping.h"
#include "macho/macho_file.h"
#include "operations/delete_file_operation.h"
#include "support/cleanup_registry.h"
#include "support/temporary_directory.h"

namespace symlift::cli {

using namespace console;

namespace fs = std::filesystem;

namespace {

constexpr const char* kDWARFFolder = "Contents/Resources/DWARF";
constexpr const char* kSystemLibraryBundlePrefix = "libswift";

bool hasSuffixIgnoringCase(std::string name, std::string_view suffix) {
  while (name.size() > 1 && name.back() == '/') name.pop_back();
  if (name.size() < suffix.size()) return false;
  return std::equal(suffix.begin(), suffix.end(), name.end() - static_cast<std::ptrdiff_t>(suffix.size()),
                    [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) ==
                                                std::tolower(static_cast<unsigned char>(b)); });
}

// Every entry below the folder, relative to it, parents before their
// contents and each folder's entries in name order (so runs repeat). Links
// to folders are listed but not entered. Nothing when the folder itself
// cannot be read.
std::optional<std::vector<std::string>> deepEntries(const fs::path& folder) {
  std::error_code error;
  fs::directory_iterator top(folder, error);
  if (error) return std::nullopt;
  std::vector<std::string> entries;
  std::function<void(const fs::path&, const std::string&)> walk = [&](const fs::path& dir, const std::string& prefix) {
    std::error_code walkError;
    std::vector<fs::directory_entry> children;
    for (fs::directory_iterator it(dir, walkError), end; !walkError && it != end; it.increment(walkError))
      children.push_back(*it);
    std::sort(children.begin(), children.end(),
              [](const auto& a, const auto& b) { return a.path().filename() < b.path().filename(); });
    for (const auto& child : children) {
      const std::string relative = prefix + child.path().filename().string();
      entries.push_back(relative);
      std::error_code typeError;
      if (child.is_directory(typeError) && !child.is_symlink(typeError)) walk(child.path(), relative + "/");
    }
  };
  walk(folder, "");
  return entries;
}

// Makes the missing parents of an unpack folder, each readable by the user
// only. The temporary directory's own folders are taken as they are; below
// it (where an archive's path becomes a chain of folders), a folder that is
// already there must be a real folder of this user, not a link somebody put
// at that predictable name. Folders made are registered for removal should
// the run be interrupted. On failure, failedPath and the returned errno say
// where and why.
int createPrivateParents(const fs::path& folder, const fs::path& temporaryDirectory, std::string& failedPath,
                         support::CleanupRegistry& cleanup) {
  const auto trusted = static_cast<std::size_t>(std::distance(temporaryDirectory.begin(), temporaryDirectory.end()));
  fs::path partial;
  std::size_t index = 0;
  for (const auto& part : folder.parent_path()) {
    partial /= part;
    if (part.empty()) continue;  // the empty part after a doubled slash
    const bool below = index++ >= trusted;
    const bool made = cleanup.createRegistered(partial.string(), [&] { return ::mkdir(partial.c_str(), 0700) == 0; });
    int reason = made ? 0 : errno;
    if (reason == EEXIST) {
      reason = 0;
      struct stat info {};
      if (below && ::lstat(partial.c_str(), &info) != 0) reason = errno;
      else if (below && !S_ISDIR(info.st_mode)) reason = ENOTDIR;
      else if (below && info.st_uid != ::geteuid()) reason = EACCES;
    }
    if (reason != 0) {
      failedPath = partial.string();
      return reason;
    }
  }
  return 0;
}

// An archive may hold symbolic links; unzip restores them as they are. A
// link leading out of the unpack folder would let the search read, and a
// later step write, where the archive has no business, so it is removed.
void removeLinksLeadingOutOf(const fs::path& folder) {
  std::error_code error;
  const fs::path root = fs::canonical(folder, error);
  if (error) return;
  std::vector<fs::path> links;
  for (fs::recursive_directory_iterator it(folder, fs::directory_options::none, error), end; !error && it != end;
       it.increment(error)) {
    if (it->is_symlink(error)) links.push_back(it->path());
  }
  for (const auto& link : links) {
    std::error_code resolveError;
    const fs::path target = fs::weakly_canonical(link, resolveError);
    const auto [rootEnd, targetAt] = std::mismatch(root.begin(), root.end(), target.begin(), target.end());
    const bool inside = !resolveError && rootEnd == root.end() && targetAt != target.end();
    if (inside) continue;
    std::error_code removeError;
    fs::remove(link, removeError);
    SYLLogWarning("Removed symbolic link leading out of the archive: {}", printable(link.string()));
  }
}

bool isSystemLibraryDSYM(const dsym::SUPDSYMFile& file) {
  if (!file.dsym()) return false;
  auto identifier = file.dsym()->bundleIdentifier();
  return identifier && identifier->starts_with(kSystemLibraryBundlePrefix);
}

// Whether the file has a slice that is a Mach-O image: a stray file in the
// DWARF folder (Finder's .DS_Store) is one unknown slice and nothing more.
bool hasArchitectureSlices(const dsym::SUPDSYMFile& file) {
  const auto& binary = file.dsym() ? file.dsym()->binary() : nullptr;
  return binary && !binary->slices().empty() && binary->file() && !binary->file()->images().empty();
}

// Why a DWARF file that is there could not be read: the errno of opening it
// (without waiting on a pipe or a device), or 0 when it opens.
int openError(const fs::path& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return errno;
  ::close(fd);
  return 0;
}

// unzip takes a word that starts with "-" for options, whatever its place.
std::string asOperand(const std::string& path) { return path.starts_with("-") ? "./" + path : path; }

}  // namespace

bool isPathOfType(const std::string& path, PathType type) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (!fs::exists(status)) {
    if (error == std::errc::filename_too_long)
      SYLLogWarning("Path is too long: {}", printable(path));
    else
      SYLLogWarning("Path does not exist: {}", printable(path));
    return false;
  }
  const bool isDSYMName = hasSuffixIgnoringCase(path, ".dSYM");
  switch (type) {
    case PathType::DSYMBundle:
      return fs::is_directory(status) && isDSYMName;
    case PathType::Folder:
      return fs::is_directory(status) && !isDSYMName;
    case PathType::ZipArchive:
      return fs::is_regular_file(status) && hasSuffixIgnoringCase(path, ".zip");
  }
  return false;
}

bool isValidDSYMBundle(const std::string& path) {
  std::error_code error;
  if (!fs::exists(path, error)) return false;
  if (!dsym::SUPBundle::bundleWithURL(path)) {
    SYLLogWarning("{} is not a dSYM bundle.", printable(path));
    return false;
  }
  const fs::path dwarf = fs::path(path) / kDWARFFolder;
  if (!fs::is_directory(dwarf, error)) {
    SYLLogWarning("{} does not contain DWARF content.", printable(path));
    return false;
  }
  auto entries = deepEntries(dwarf);
  if (!entries || entries->empty()) {
    SYLLogWarning("Found a DWARF dir with no content: {}", printable(path));
    return false;
  }
  return true;
}

std::string unpackFolderForArchive(const std::string& archivePath) {
  std::string archive = archivePath;
  const fs::path given(archivePath);
  if (std::any_of(given.begin(), given.end(), [](const fs::path& part) { return part == ".."; })) {
    std::error_code error;
    archive = fs::absolute(given, error).lexically_normal().string();
  }
  return support::temporaryDirectory() + "/" + archive + ".unzipped";
}

PathExpansion::PathExpansion(RunContext& run, const SYLUploadSettings& settings, DWARFInputHandler handle)
    : run_(run), settings_(settings), handle_(std::move(handle)) {}

int PathExpansion::processPaths(const std::vector<std::string>& paths, bool recursive) {
  for (const auto& path : paths) {
    SYLLogDebug("Inspecting next path: {}", printable(path));
    int status = kExitSuccess;
    if (path.find("__MACOSX") != std::string::npos) {
      SYLLogDebug("Skipping OS X archive metadata file: {}", printable(path));
    } else if (isPathOfType(path, PathType::DSYMBundle)) {
      SYLLogDebug("Found dSYM at path: {}", printable(path));
      status = processDSYMBundle(path);
    } else if (!recursive && isPathOfType(path, PathType::Folder)) {
      SYLLogDebug("Found directory at path: {}", printable(path));
      bool found = false;
      status = expandDirectory(path, found);
      if (status == kExitSuccess && !found) SYLLogWarning("No dSYMs found in {}", printable(path));
    } else if (isPathOfType(path, PathType::ZipArchive)) {
      SYLLogDebug("Found archive at path: {}", printable(path));
      status = processArchive(path);
    } else if (!recursive) {
      SYLLogWarning("Path is not a .dSYM, directory, or archive: {}", printable(path));
    }
    if (status != kExitSuccess) return status;
  }
  return kExitSuccess;
}

int PathExpansion::expandDirectory(const std::string& path, bool& found) {
  found = false;
  auto entries = deepEntries(path);
  if (!entries) {
    SYLLogWarning("Unable to enumerate contents of directory: {}", printable(path));
    return kExitSuccess;
  }
  std::vector<std::string> paths;
  paths.reserve(entries->size());
  for (const auto& entry : *entries) paths.push_back(path + "/" + entry);
  // Deliberately the count of all entries, not of dSYMs.
  found = !paths.empty();
  return processPaths(paths, /*recursive=*/true);
}

int PathExpansion::processDSYMBundle(const std::string& path) {
  if (!isValidDSYMBundle(path)) return kExitSuccess;
  const fs::path dwarfFolder = fs::path(path) / kDWARFFolder;
  for (const auto& entry : deepEntries(dwarfFolder).value_or(std::vector<std::string>{})) {
    const fs::path dwarfPath = (dwarfFolder / entry).lexically_normal();
    auto dSYMFile = dsym::SUPDSYMFile::initWithDWARFURL(dwarfPath, path, run_.symbolFiles());
    if (dSYMFile && isSystemLibraryDSYM(*dSYMFile)) {
      SYLLogWarning("Skipping Apple dSYM: {}", printable(path));
      if (skipped_) skipped_(DWARFInput{path, dwarfPath, dSYMFile});
      return kExitSuccess;
    }
    DWARFInput input{path, dwarfPath, dSYMFile};
    // A dSYM operation over no slices would wait forever for a compound
    // operation with nothing in it; a file that has none has nothing to
    // upload. A file that has gone since the listing still goes to the
    // pipeline, which reports it gone; one that cannot be read is the
    // handler's to report.
    std::error_code error;
    if (dSYMFile && !hasArchitectureSlices(*dSYMFile) && fs::exists(fs::symlink_status(dwarfPath, error))) {
      input.readError = openError(dwarfPath);
      if (input.readError == 0) {
        SYLLogWarning("No architecture slices in dSYM at {}", printable(dwarfPath.string()));
        if (skipped_) skipped_(input);
        continue;
      }
    }
    if (int status = handle_(input); status != kExitSuccess) return status;
  }
  return kExitSuccess;
}

int PathExpansion::processArchive(const std::string& path) {
  const std::string folder = unpackFolderForArchive(path);
  const auto failedToCreate = [&folder](const std::string& failedPath, int reason) {
    SYLLogError("Failed to create directory {}", printable(folder));
    SYLLogError("Could not create {}: {}", printable(failedPath), std::strerror(reason));
    return kExitUnpackFolderNotCreatable;
  };
  support::CleanupRegistry& cleanup = run_.cleanup();
  std::string failedPath;
  if (const int reason = createPrivateParents(folder, support::temporaryDirectory(), failedPath, cleanup); reason != 0)
    return failedToCreate(failedPath, reason);
  // An unpack folder left by an earlier run (or anything else at its name,
  // a link included: remove_all does not follow it) makes way for a fresh
  // private one; one that appears meanwhile is not ours to use.
  std::error_code error;
  if (fs::exists(fs::symlink_status(folder, error))) {
    fs::remove_all(folder, error);
    if (error) SYLLogWarning("Failed to remove {}", printable(folder));
  }
  if (!cleanup.createRegistered(folder, [&] { return ::mkdir(folder.c_str(), 0700) == 0; }))
    return failedToCreate(folder, errno);

  std::string unzip = buildenv::SUPTask::stdoutWithLaunchPath("/usr/bin/which", {"unzip"}).value_or("");
  const auto notSpace = [](unsigned char c) { return !std::isspace(c); };
  unzip.erase(unzip.begin(), std::find_if(unzip.begin(), unzip.end(), notSpace));
  unzip.erase(std::find_if(unzip.rbegin(), unzip.rend(), notSpace).base(), unzip.end());
  if (unzip.empty()) {
    SYLLogError("Could not find \u2018unzip\u2018 command");
    return kExitNoUnzip;
  }

  // unzip fills the fresh private folder made above (it would make a folder
  // of its own with the default mode, readable by everyone).
  std::int32_t status = -1;
  std::string standardError;
  const bool launched = buildenv::SUPTask::launchWithPath(
      unzip, std::nullopt, buildenv::SUPTask::Arguments{"-qq", "-o", asOperand(path), "-d", asOperand(folder)},
      [&](const std::string& err, const std::string&, std::int32_t exitStatus) {
        standardError = err;
        status = exitStatus;
      });
  removeLinksLeadingOutOf(folder);
  if (!launched || status != 0) {
    const std::string detail = buildenv::SUPTask::isValidUTF8(standardError) ? ": " + standardError : "";
    SYLLogError("Failed to unzip archive at {}{}", printable(path), detail);
    return kExitUnzipFailed;
  }

  bool found = false;
  if (int result = expandDirectory(folder, found); result != kExitSuccess) return result;
  if (!found) SYLLogWarning("No dSYMs found in {}", printable(path));
  if (!settings_.convertOnly)
    run_.queue()->addOperation(operations::SUPDeleteFileOperation::initWithPath(folder, cleanup));
  return kExitSuccess;
}

}  // namespace symlift::cli
