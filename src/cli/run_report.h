#pragma once
// The machine-readable report of one run (--report FILE): what the run was,
// every input path with the dSYMs and slices it became, the warnings and
// errors printed, and how the run ended. It is written atomically (a private
// temporary file beside it, renamed over it) once the run is over, whichever
// way: a returned status or an interrupting signal. The format is described
// in docs/report.schema.json; its "schema" field is raised whenever a field
// changes meaning or goes away.

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "console/console_log.h"
#include "operations/pipeline_observer.h"
#include "support/error.h"

namespace symlift::cli {

struct DWARFInput;

class RunReport : public operations::PipelineObserver, public console::LogListener {
 public:
  static constexpr int kSchema = 1;

  explicit RunReport(std::string path);
  ~RunReport() override;
  RunReport(const RunReport&) = delete;
  RunReport& operator=(const RunReport&) = delete;

  void setMode(const std::string& mode, bool convertOnly, bool strict);
  void setPlatform(const std::string& platform);

  // An input path as given; the dSYMs that follow belong to it.
  void beginInput(const std::string& path);
  // One DWARF file about to go through the pipeline, with the slices its
  // Mach-O header lists.
  void beginDSYM(const DWARFInput& input);
  // The dSYM's outcome; slices without one of their own take it.
  void endDSYM(const support::ErrorPtr& error);
  // A DWARF file path expansion left out, with its slices.
  void skippedDSYM(const DWARFInput& input);
  // The build-phase run found the executable already uploaded: the paths
  // it would have processed.
  void alreadyUploaded(const std::vector<std::string>& paths);

  // Writes the report with the run's status (or the signal that ended it).
  // Only the first call writes; false (with a line on standard error) when
  // the file could not be written.
  bool write(int exitStatus, std::optional<int> signal = std::nullopt);

  // operations::PipelineObserver
  void conversionStarted(const std::string& dwarfPath) override;
  void sliceConverted(const std::string& dwarfPath, const operations::CSYMHeader& header,
                      std::uint64_t bytes) override;
  void sliceCompressed(const std::string& uuid, std::uint64_t gzipBytes) override;
  void uploadStarted(const std::string& uuid, std::uint64_t bodyBytes) override;
  void uploadFinished(const std::string& uuid, long httpStatus, std::uint64_t attempts,
                      const support::ErrorPtr& error) override;

  // console::LogListener
  void didWriteLine(std::uint64_t level, std::string_view message) override;

 private:
  using Clock = std::chrono::steady_clock;
  struct Slice {
    std::string architecture;
    std::string uuid;
    std::optional<operations::CSYMHeader> counts;
    std::optional<std::uint64_t> csymBytes;
    std::optional<std::uint64_t> gzipBytes;
    std::string status;  // empty until known
    long httpStatus = 0;
    std::uint64_t attempts = 0;
    support::ErrorPtr error;
    double seconds = 0;
    std::optional<Clock::time_point> uploadStart;
  };
  struct DSYM {
    std::string bundle;
    std::string dwarfFile;
    std::string status;
    support::ErrorPtr error;
    std::vector<Slice> slices;
  };
  struct Input {
    std::string path;
    std::string status;  // set only for inputs that never reached the pipeline
    std::deque<DSYM> dsyms;  // a deque: current_ stays valid as it grows
  };

  Slice* sliceLocked(const std::string& uuid);
  DSYM& dsymFor(const DWARFInput& input, const std::string& status);
  std::string jsonLocked(int exitStatus, std::optional<int> signal) const;

  const std::string path_;
  const std::chrono::system_clock::time_point started_;
  mutable std::mutex mutex_;  // guards everything below
  bool written_ = false;
  std::string mode_ = "manual";
  bool convertOnly_ = false;
  bool strict_ = false;
  std::optional<std::string> platform_;
  std::vector<std::string> warnings_;
  std::vector<std::string> errors_;
  std::deque<Input> inputs_;
  DSYM* current_ = nullptr;  // the dSYM in the pipeline
  Clock::time_point lastMark_{};
};

}  // namespace symlift::cli
