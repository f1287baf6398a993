// The real symlift binary as an Xcode build phase that uploads to the local
// stand-in service: the store of uploaded executables keeps a repeated build
// from uploading again (but not on CI machines), and the dSYM validator's
// warnings come before the upload in a build and after it by hand.
//
// A run counts as inside Xcode when an ancestor process is named "Xcode":
// such runs go through a symbolic link named Xcode to /bin/sh, which the
// kernel names after the link. Runs started directly have no such ancestor
// and, with no desktop app, count as CI.

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <set>

#include "e2e/output_lines.h"
#include "e2e/manual_run.h"
#include "macho/macho_binary.h"
#include "macho/macho_slice.h"
#include "operations/pipeline_test_support.h"
#include "records/upload_record_archive.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;
const Lines kPlain;
constexpr const char* kBuildApp = "1:42:ios:bp";

std::set<std::string> uuidsOf(const fs::path& machO) {
  std::set<std::string> uuids;
  if (auto binary = macho::SUPMachOBinary::MachOBinaryWithPath(machO.string()))
    for (const auto& slice : binary->slices())
      if (slice->uuid()) uuids.insert(*slice->uuid());
  return uuids;
}

// Rewrites every occurrence of each UUID's bytes in a file with the UUID's
// last byte inverted: the same program, rebuilt with new UUIDs.
void giveNewUUIDs(const fs::path& file, const std::set<std::string>& uuids) {
  std::string contents = readFile(file);
  for (const std::string& uuid : uuids) {
    std::string from;
    for (std::size_t i = 0; i + 1 < uuid.size(); i += 2)
      from.push_back(static_cast<char>(std::stoi(uuid.substr(i, 2), nullptr, 16)));
    std::string to = from;
    to.back() = static_cast<char>(~to.back());
    for (auto at = contents.find(from); at != std::string::npos; at = contents.find(from, at + to.size()))
      contents.replace(at, to.size(), to);
  }
  std::ofstream(file, std::ios::binary | std::ios::trunc) << contents;
}

class BuildPhaseUploadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service_.started());
    fs::create_directories(products() / "FatApp.app");
    fs::copy_file(fixturesDir() / "FatApp", executable());
    copyFixture("FatApp.dSYM", dSYM());
    dir_.write("Build/Products/Release-iphoneos/FatApp.app/OmvaraService-Info.plist",
               std::string("<plist version=\"1.0\"><dict><key>OMVARA_APP_ID</key><string>") + kBuildApp +
                   "</string></dict></plist>");
    for (const char* folder : {"Project", "cache", "tmp", "home", "bin"}) fs::create_directories(dir_.path() / folder);
    fs::create_symlink("/bin/sh", xcode());
    environment_ = cleanEnvironment((dir_.path() / "tmp").string(), service_.baseURL(),
                                    {{"HOME", (dir_.path() / "home").string()},
                                     {"XDG_CACHE_HOME", cache().string()},
                                     {"BUILT_PRODUCTS_DIR", products().string()},
                                     {"EXECUTABLE_PATH", "FatApp.app/FatApp"},
                                     {"UNLOCALIZED_RESOURCES_FOLDER_PATH", "FatApp.app"},
                                     {"DWARF_DSYM_FOLDER_PATH", products().string()},
                                     {"DWARF_DSYM_FILE_NAME", "FatApp.app.dSYM"},
                                     {"PROJECT_DIR", (dir_.path() / "Project").string()},
                                     {"PLATFORM_NAME", "iphoneos"},
                                     {"CONFIGURATION", "Release"}});
  }

  fs::path products() const { return dir_.path() / "Build/Products/Release-iphoneos"; }
  fs::path executable() const { return products() / "FatApp.app/FatApp"; }
  fs::path dSYM() const { return products() / "FatApp.app.dSYM"; }
  fs::path dSYMDWARF() const { return dSYM() / "Contents/Resources/DWARF/FatApp"; }
  fs::path cache() const { return dir_.path() / "cache"; }
  fs::path xcode() const { return dir_.path() / "bin/Xcode"; }

  // symlift started from a process named Xcode (a shell that waits for it).
  // Killing the shell on time-out would leave symlift running, so its own
  // time limit comes from timeout(1), which ends it first.
  RunResult runInXcode(const std::vector<std::string>& arguments, const RunOptions& given = {}) const {
    std::vector<std::string> argv{xcode().string(), "-c", "timeout 50 \"$0\" \"$@\"; exit $?", symliftBinary()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return runProgram(argv, given.environment ? given : options());
  }
  RunResult runOnCI(const std::vector<std::string>& arguments) const { return runSymlift(arguments, options()); }
  RunOptions options() const {
    RunOptions options;
    options.environment = environment_;
    options.timeoutSeconds = 60;
    return options;
  }

  // The store file, when exactly one endpoint's store folder exists.
  std::optional<fs::path> storeFile() const {
    std::vector<fs::path> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(cache() / "com.vantrel.mac", error))
      files.push_back(entry.path() / "uploaded/records.dat");
    if (files.size() != 1 || !fs::exists(files[0])) return std::nullopt;
    return files[0];
  }

  // The UUID sets of the stored records.
  std::set<std::set<std::string>> storedUUIDSets() const {
    std::set<std::set<std::string>> sets;
    if (auto file = storeFile()) {
      auto records = records::unarchiveUploadRecords(readFile(*file));
      EXPECT_TRUE(records) << "the store does not decode";
      if (records)
        for (const auto& record : *records) sets.insert(record.uuids());
    }
    return sets;
  }

  // The UUIDs named by the service's PUT requests, in arrival order.
  std::vector<std::string> uploadedUUIDs() const {
    std::vector<std::string> uuids;
    const std::string prefix = std::string(" PUT /v1/project/-/app/") + kBuildApp + "/upload/native/";
    for (const std::string& line : linesOf(service_.requestLog()))
      if (auto at = line.find(prefix); line.starts_with("#") && at != std::string::npos)
        uuids.push_back(line.substr(at + prefix.size()));
    return uuids;
  }

  FakeServiceProcess service_;
  TempDir dir_;
  std::map<std::string, std::string> environment_;
};

// In Xcode an executable is uploaded once until it is rebuilt; on CI every
// run uploads, and the store is neither made, consulted nor changed there.
TEST_F(BuildPhaseUploadTest, InXcodeAnExecutableIsUploadedOnceUntilItIsRebuiltOnCIEveryTime) {
  const std::set<std::string> builtUUIDs = uuidsOf(executable());
  ASSERT_EQ(builtUUIDs.size(), 2u);
  ASSERT_EQ(uuidsOf(dSYMDWARF()), builtUUIDs);
  EXPECT_EQ(runOnCI({"-bp"}).status, 0);
  EXPECT_EQ(service_.loggedRequestCount(), 2u);
  EXPECT_TRUE(fs::is_empty(cache())) << "the store was touched on CI";

  // First build in Xcode: both slices go up, then the executable is recorded.
  RunResult first = runInXcode({"-bp"});
  EXPECT_EQ(first.status, 0) << first.out;
  EXPECT_EQ(countOccurrences(first.out, "Successfully submitted symbols for architecture "), 2u) << first.out;
  EXPECT_TRUE(first.out.ends_with(kPlain.success("Successfully uploaded Vantrel build event and symbols")))
      << first.out;
  std::vector<std::string> uploaded = uploadedUUIDs();
  EXPECT_EQ(std::set<std::string>(uploaded.begin() + 2, uploaded.end()), builtUUIDs);
  EXPECT_EQ(storedUUIDSets(), std::set<std::set<std::string>>{builtUUIDs});
  ASSERT_TRUE(storeFile());
  const std::string store = readFile(*storeFile());

  // The same build again: stopped before anything is opened or sent; on CI
  // uploaded all the same.
  expectExactRun(runInXcode({"-bp"}), 0,
                 kPlain.info("Running symlift in Build Phase mode") +
                     kPlain.info("Validating build environment for Vantrel...") + kPlain.info("Processing dSYMs...") +
                     kPlain.info("Already uploaded this dSYM, not doing it again"));
  EXPECT_EQ(service_.loggedRequestCount(), 4u);
  EXPECT_EQ(runOnCI({"-bp"}).status, 0);
  EXPECT_EQ(service_.loggedRequestCount(), 6u);
  EXPECT_EQ(readFile(*storeFile()), store);

  // A rebuild with new UUIDs is not in the store: uploaded, and recorded
  // beside the first build.
  giveNewUUIDs(executable(), builtUUIDs);
  giveNewUUIDs(dSYMDWARF(), builtUUIDs);
  const std::set<std::string> rebuiltUUIDs = uuidsOf(executable());
  ASSERT_EQ(rebuiltUUIDs.size(), 2u);
  ASSERT_NE(rebuiltUUIDs, builtUUIDs);
  ASSERT_EQ(uuidsOf(dSYMDWARF()), rebuiltUUIDs);
  RunResult rebuilt = runInXcode({"-bp"});
  EXPECT_EQ(rebuilt.status, 0) << rebuilt.out;
  uploaded = uploadedUUIDs();
  ASSERT_EQ(uploaded.size(), 8u);
  EXPECT_EQ(std::set<std::string>(uploaded.begin() + 6, uploaded.end()), rebuiltUUIDs);
  EXPECT_EQ(storedUUIDSets(), (std::set<std::set<std::string>>{builtUUIDs, rebuiltUUIDs}));
}

// Eight build phases at once share one store: four upload the executable to
// a service that takes it, four upload a rebuilt one (new UUIDs) to a
// service that refuses every attempt. The store holds the first executable
// only, and every cSYM the service received is complete.
TEST_F(BuildPhaseUploadTest, ConcurrentBuildsRecordOnlyCompleteUploads) {
  FakeServiceProcess refusing({"--fail-first", "100000"});
  ASSERT_TRUE(refusing.started());
  const fs::path rebuilt = dir_.path() / "Rebuilt";
  fs::copy(products(), rebuilt, fs::copy_options::recursive);
  giveNewUUIDs(rebuilt / "FatApp.app/FatApp", uuidsOf(executable()));
  giveNewUUIDs(rebuilt / "FatApp.app.dSYM/Contents/Resources/DWARF/FatApp", uuidsOf(executable()));
  std::vector<std::future<RunResult>> runs;
  for (int run = 0; run < 8; ++run) {
    RunOptions given = options();
    (*given.environment)["SYMLIFT_TEST_MAX_RETRY_DELAY_MS"] = "1";
    if (run % 2) {
      for (const char* name : {"BUILT_PRODUCTS_DIR", "DWARF_DSYM_FOLDER_PATH"})
        (*given.environment)[name] = rebuilt.string();
      (*given.environment)["VantrelUploadEndpoint"] = refusing.baseURL();
    }
    runs.push_back(std::async(std::launch::async, [this, given] { return runInXcode({"-bp"}, given); }));
  }
  for (int run = 0; run < 8; ++run) EXPECT_EQ(runs[run].get().status, run % 2 ? 8 : 0) << "run " << run;
  EXPECT_EQ(storedUUIDSets(), std::set<std::set<std::string>>{uuidsOf(executable())});
  const auto bodies = storedUploads(service_);
  EXPECT_EQ(bodies.size(), 2u);
  for (const auto& [name, gzip] : bodies) EXPECT_EQ(csymProblem(gunzip(gzip).value_or("")), "") << name;
}

// The validator looks into folders of dSYMs, so the dSYMs it is to judge are
// handed over in a folder after "--". In a build every path is first waited
// for as a bundle, so that folder has a DWARF folder of its own. The warning
// about the bundle is printed once: in a build before every line of the
// processing (which must all be there), by hand after them all and before the
// closing line; -sdv leaves it out in either mode.
TEST_F(BuildPhaseUploadTest, ValidatorWarnsBeforeTheUploadInABuildAndAfterItByHand) {
  struct Case {
    const char* bundle;
    std::string (Lines::*warning)(const std::string&) const;
    std::string processed;  // a line of the processing
  };
  const fs::path folder = dir_.path() / "Symbols";
  fs::create_directories(folder / "Contents/Resources/DWARF");
  // A well-formed Mach-O file with a UUID but no symbol table.
  fs::create_directories(folder / "Stripped.dSYM/Contents/Resources/DWARF");
  fs::copy_file(fixturesDir() / "edge/thin-arm64", folder / "Stripped.dSYM/Contents/Resources/DWARF/Stripped");
  std::vector<Case> cases{{"Stripped.dSYM", &Lines::emptyDSYM,
                           "Successfully submitted symbols for architecture arm64 with UUID " +
                               *uuidsOf(fixturesDir() / "edge/thin-arm64").begin()}};
  // An App Store build of libswiftObjectiveC, its names "__hidden#NNN_";
  // Apple's own library is not uploaded, only reported as skipped.
  if (auto corpus = corpusDir()) {
    const fs::path hidden =
        *corpus / "symbolic/py/tests/res/ext/1.4.1/release/dSYMs/1E4219C0-A535-3789-B1DC-79264975EA6F.dSYM";
    if (fs::is_directory(hidden)) {
      fs::create_directory_symlink(hidden, folder / "Hidden.dSYM");
      cases.push_back(
          {"Hidden.dSYM", &Lines::hiddenDSYM, "warning: Skipping Apple dSYM: " + (folder / "Hidden.dSYM").string()});
    }
  }
  if (cases.size() < 2) std::cout << "[ skipped  ] Hidden.dSYM: the shared corpus is not beside the repository\n";

  for (const bool build : {true, false}) {
    SCOPED_TRACE(build ? "in a build" : "by hand");
    std::vector<std::string> arguments{"-bp", "--", folder.string()};
    if (!build) arguments = {"-ai", kBuildApp, "-p", "ios", "--", folder.string()};
    RunResult result = runOnCI(arguments);
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(result.out.ends_with(build ? kPlain.success("Successfully uploaded Vantrel build event and symbols")
                                           : kPlain.uploaded()))
        << result.out;
    for (const Case& c : cases) {
      SCOPED_TRACE(c.bundle);
      const std::string warning = (kPlain.*c.warning)((folder / c.bundle).string());
      EXPECT_EQ(countOccurrences(result.out, warning), 1u) << result.out;
      const auto warned = result.out.find(warning);
      ASSERT_NE(result.out.find(c.processed), std::string::npos) << result.out;
      EXPECT_EQ(warned < result.out.find(c.processed), build) << result.out;
      if (build) {
        EXPECT_GT(warned, result.out.find("Processing dSYMs...")) << result.out;
      }
    }
    arguments.insert(arguments.begin(), "-sdv");
    RunResult skipped = runOnCI(arguments);
    EXPECT_EQ(skipped.status, 0);
    EXPECT_EQ(skipped.out.find("warning: Vantrel found"), std::string::npos) << skipped.out;
  }
}

}  // namespace
}  // namespace symlift::testing::e2e
