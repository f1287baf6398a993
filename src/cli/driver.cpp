#include "cli/driver.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "buildenv/build_environment.h"
#include "cli/app_id.h"
#include "console/console_log.h"
#include "cli/exit_status.h"
#include "cli/interruption.h"
#include "cli/platform_names.h"
#include "cli/process_environment.h"
#include "cli/processing.h"
#include "cli/progress_line.h"
#include "cli/run_report.h"
#include "cli/run_context.h"
#include "cli/run_info.h"
#include "cli/service_pages.h"
#include "cli/symbolication_version.h"
#include "cli/upload_settings.h"
#include "dsym/dsym_validator.h"
#include "cli/record_upload.h"
#include "records/upload_recorder.h"

namespace symlift::cli {

using namespace console;

namespace {

constexpr const char* kValidationSucceeded = "Validation succeeded. Symbol uploading will proceed in the background.";

// The API key belonged to the service's previous home; passing one means the
// run script predates the move, so say how to fix it rather than ignore it.
void printRetiredAPIKeyError(bool buildPhaseRoute) {
  const std::string hint = fmt::format(
      "If you still use Vantrel in Tesmer, migrate your app to Pelloran at {}", kMigrationRoadMapAddress);
  if (buildPhaseRoute) {
    SYLLogError(
        "Vantrel no longer uses the Tesmer API Key. A Tesmer API Key was passed to symlift using the \"run\" "
        "script. To fix this, go into your project's Build Phases, locate the Tesmer run script, and remove "
        "the API Key and Build Secret from the command-line arguments (they are 2 long strings of random "
        "characters). Vantrel now uses your default OmvaraService-Info.plist to identify your app. To use a "
        "different OmvaraService-Info.plist for a build, eg. for separate dev and prod configurations, pass "
        "-osp / --omvara-service-plist <path/to/OmvaraService-Info.plist> to your run script. {}",
        hint);
  } else {
    SYLLogError(
        "Vantrel no longer uses the Tesmer API Key. A Tesmer API Key was passed to symlift using the -a / "
        "--api-key flag. To fix this, remove the API Key from the command-line arguments, and make sure to "
        "pass the -osp / --omvara-service-plist <path/to/OmvaraService-Info.plist>. {}",
        hint);
  }
}

// Counts the slices that made it: uploaded, or converted in a convert-only
// run (for --strict).
class SliceTally : public operations::PipelineObserver {
 public:
  explicit SliceTally(bool convertOnly) : convertOnly_(convertOnly) {}
  std::uint64_t count() const { return count_; }
  void sliceConverted(const std::string&, const operations::CSYMHeader&, std::uint64_t) override {
    if (convertOnly_) ++count_;
  }
  void uploadFinished(const std::string&, long, std::uint64_t, const support::ErrorPtr& error) override {
    if (!error) ++count_;
  }

 private:
  const bool convertOnly_;
  std::atomic<std::uint64_t> count_{0};
};

// What the routes share besides the arguments: the report (if asked for)
// and the strictness.
struct RunOptions {
  RunReport* report = nullptr;
  bool strict = false;
};

// The run's context with its listeners: the progress line, the tally and
// the report hear of every slice.
class Run {
 public:
  Run(const SYLUploadSettings& settings, const RunOptions& options)
      : options_(options),
        progress_(STDERR_FILENO, settings.convertOnly),
        tally_(settings.convertOnly),
        observers_(options.report ? std::vector<operations::PipelineObserver*>{&progress_, &tally_, options.report}
                                  : std::vector<operations::PipelineObserver*>{&progress_, &tally_}),
        context_(settings.convertOnly, observers_) {}

  symbols::SymbolFileCache& symbolFiles() { return context_.symbolFiles(); }

  // Every path through the pipeline; the run's status. With --strict a run
  // in which no slice made it fails.
  int process(const SYLUploadSettings& settings, const std::vector<std::string>& paths) {
    const int status = processPaths(context_, settings, paths, {options_.report, &progress_});
    progress_.clear();
    if (status != kExitSuccess || !options_.strict || tally_.count() > 0) return status;
    if (settings.convertOnly)
      SYLLogError("Nothing was converted: no dSYM with architecture slices was found in the given paths");
    else
      SYLLogError("Nothing was uploaded: no dSYM with architecture slices was found in the given paths");
    return kExitNothingUploaded;
  }

 private:
  const RunOptions& options_;
  ProgressLine progress_;
  SliceTally tally_;
  operations::PipelineObservers observers_;
  RunContext context_;
};

int runManualMode(const ArgumentList& arguments, SYLUploadSettings settings, const RunOptions& options) {
  if (!arguments.hasFlag(kPlatformOption)) {
    SYLLogError("Missing required flag {}/{}", kPlatformOption.shortName, kPlatformOption.longName);
    return kExitMissingPlatform;
  }
  auto platform = arguments.valueForFlag(kPlatformOption);
  if (platform && isValidPlatform(*platform)) {
    settings.platform = *platform;
  } else {
    // Not fatal: the service files the symbols without a platform. A -p
    // at the end of the line has no value, shown as "(null)".
    SYLLogError("Invalid platform name ({}). Valid platform names are: '{}'", platform.value_or("(null)"),
                validPlatformsDescription());
    settings.platform = kUnspecifiedPlatform;
  }

  const std::vector<std::string> paths = arguments.pathArguments();
  if (paths.empty()) {
    SYLLogError("No dSYM paths provided");
    return kExitNoDSYMPaths;
  }

  if (arguments.hasFlag(kDebugOption)) printDebugInfo(paths, settings);
  if (arguments.hasFlag(kValidateOption)) {
    SYLLogSuccess("{}", kValidationSucceeded);
    return kExitSuccess;
  }

  if (options.report) options.report->setPlatform(settings.platform);
  Run run(settings, options);
  if (int status = run.process(settings, paths); status != kExitSuccess) return status;
  // By hand the validator's warnings follow the upload; they never stop it.
  if (!arguments.hasFlag(kSkipDSYMValidationOption)) dsym::DSYMValidator::validateDSYMs(paths, run.symbolFiles());
  SYLLogSuccess("Successfully uploaded Vantrel symbols");
  return kExitSuccess;
}

int runBuildPhaseMode(const ArgumentList& arguments, const buildenv::Environment& environment,
                      SYLUploadSettings settings, const RunOptions& options) {
  const bool isLumoProject = arguments.hasFlag(kLumoProjectOption);
  SYLLogInfo("Running symlift in Build Phase mode");

  settings.platform = buildenv::platformNameFromEnvironment(environment);
  if (settings.platform == kUnspecifiedPlatform) SYLLogWarning("Could not get platform name from build environment");

  std::vector<std::string> paths = buildenv::dSYMPathsFromEnvironment(environment, isLumoProject);
  if (paths.empty()) {
    SYLLogError("Could not get dSYM paths from build environment");
    return kExitNoDSYMPaths;
  }
  for (auto& path : arguments.pathArguments()) paths.push_back(std::move(path));

  SYLLogInfo("Validating build environment for Vantrel...");
  if (auto problem = buildenv::validateBuildEnvironment(environment, isLumoProject)) {
    SYLLogError("{}", *problem);
    return kExitInvalidBuildEnvironment;
  }

  settings.isCI = buildenv::isRunningInCI();

  if (arguments.hasFlag(kDebugOption)) printDebugInfo(paths, settings);
  if (arguments.hasFlag(kValidateOption)) {
    SYLLogSuccess("{}", kValidationSucceeded);
    return kExitSuccess;
  }

  SYLLogInfo("Processing dSYMs...");
  for (const auto& path : paths)
    if (!buildenv::waitForDSYM(environment, path)) return kExitDSYMWaitTimedOut;

  // In a build the validator's warnings come before the upload, so they are
  // shown even when the upload is skipped as already done. What it decodes
  // is kept in the run for the conversion.
  if (options.report) options.report->setPlatform(settings.platform);
  Run run(settings, options);
  if (!arguments.hasFlag(kSkipDSYMValidationOption)) dsym::DSYMValidator::validateDSYMs(paths, run.symbolFiles());

  // The built executable's slice UUIDs identify this build's symbols. An
  // executable that cannot be opened is still asked about (as an empty set).
  const std::shared_ptr<macho::SUPMachOBinary> executable = buildenv::builtExecutable(environment);
  const std::shared_ptr<records::SUPDSYMUploadRecorder> recorder = records::SUPDSYMUploadRecorder::init();
  if (!recorder) {
    SYLLogError("Could not construct DSYM upload recorder");
    return kExitInvalidBuildEnvironment;
  }
  // On CI machines every run uploads: their caches are not the user's.
  if (!settings.isCI && recorder->isAlreadyUploadedBinary(executable)) {
    SYLLogInfo("Already uploaded this dSYM, not doing it again");
    if (options.report) options.report->alreadyUploaded(paths);
    return kExitSuccess;
  }

  if (int status = run.process(settings, paths); status != kExitSuccess) return status;
  recordUpload(recorder, executable, settings.isCI);
  SYLLogSuccess("Successfully uploaded Vantrel build event and symbols");
  return kExitSuccess;
}

}  // namespace

int run(const ArgumentList& arguments, RunReport* report) {
  // Colour only for a person at a terminal: never in build logs, pipes or
  // files, nor when NO_COLOR is set (whatever its value).
  SYLLogging::sharedInstance().setColorsEnabled(!arguments.hasFlag(kBuildPhaseOption) &&
                                                ::isatty(STDOUT_FILENO) == 1 && !std::getenv("NO_COLOR"));

  RunOptions options;
  options.report = report;
  options.strict = arguments.hasFlag(kStrictOption);
  if (options.strict) {
    if (auto unknown = arguments.firstUnknownOption()) {
      SYLLogError("Unknown option {} (run symlift --help for the options)", *unknown);
      return kExitUnknownOption;
    }
  }

  if (arguments.hasFlag(kHelpOption)) {
    printUsage();
    return kExitHelp;
  }
  if (arguments.hasFlag(kVersionOption)) {
    printVersion();
    return kExitVersion;
  }
  if (arguments.hasFlag(kDebugOption)) printVersion();

  float maxSymbolicationVersion = defaultMaxSymbolicationVersion();
  if (arguments.hasFlag(kMaxSymbolicationVersionOption))
    maxSymbolicationVersion = maxSymbolicationVersionFromText(arguments.valueForFlag(kMaxSymbolicationVersionOption));
  const bool convertOnly = arguments.hasFlag(kConvertOption);

  // -lp alone also takes the build-phase route.
  const std::optional<buildenv::Environment> environment = buildEnvironment(arguments);
  const bool buildPhaseRoute = environment.has_value();

  if (arguments.hasFlag(kAPIKeyOption)) {
    printRetiredAPIKeyError(buildPhaseRoute);
    return kExitRetiredAPIKey;
  }

  // resolveAppID has said why when there is none; an empty identifier ends
  // the run without a further message.
  const std::optional<std::string> appID = resolveAppID(arguments, environment);
  if (!appID || appID->empty()) return kExitNoAppID;

  SYLUploadSettings settings;
  settings.appID = *appID;
  settings.convertOnly = convertOnly;
  settings.isCI = false;
  settings.maxSymbolicationVersion = maxSymbolicationVersion;

  if (report) report->setMode(buildPhaseRoute ? "build-phase" : "manual", convertOnly, options.strict);
  if (!buildPhaseRoute) return runManualMode(arguments, std::move(settings), options);
  return runBuildPhaseMode(arguments, *environment, std::move(settings), options);
}

int runMain(int argc, char** argv) {
  // Before any thread starts, so that every thread leaves the signals to one.
  InterruptionHandling interruption;
  // Each line reaches a log read through a pipe as it is written.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const ArgumentList arguments(argc, argv);
  std::unique_ptr<RunReport> report;
  if (auto path = arguments.valueForFlag(kReportOption)) report = std::make_unique<RunReport>(*path);
  setInterruptionReport(report.get());
  const int status = run(arguments, report.get());
  setInterruptionReport(nullptr);
  if (report) report->write(status);
  std::fflush(stdout);
  return status;
}

}  // namespace symlift::cli
