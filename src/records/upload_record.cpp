#include "records/upload_record.h"

#include <cmath>

#include <functional>
#include <utility>
#include <vector>

#include "macho/macho_binary.h"

namespace symlift::records {

namespace {

// 2001-01-01 00:00:00 UTC in Unix time, the platform's reference date.
constexpr double kReferenceDateUnixSeconds = 978307200.0;

constexpr const char* kUUIDsKey = "uuids";
constexpr const char* kUploadDateKey = "uploadDate";

const std::vector<std::string> kRecordClasses = {kUploadRecordClassName, "NSObject"};
const std::vector<std::string> kSetClasses = {"NSSet", "NSObject"};

}  // namespace

double timeIntervalSinceReferenceDate(Date date) {
  using Seconds = std::chrono::duration<double>;
  return std::chrono::duration_cast<Seconds>(date.time_since_epoch()).count() - kReferenceDateUnixSeconds;
}

Date dateWithTimeIntervalSinceReferenceDate(double seconds) {
  using Seconds = std::chrono::duration<double>;
  return Date(std::chrono::duration_cast<Date::duration>(Seconds(seconds + kReferenceDateUnixSeconds)));
}

SUPUploadRecord::SUPUploadRecord(std::set<std::string> uuids, Date uploadDate)
    : uuids_(std::move(uuids)), uploadDate_(uploadDate) {}

SUPUploadRecord SUPUploadRecord::initWithMachOBinary(const std::shared_ptr<macho::SUPMachOBinary>& binary) {
  std::set<std::string> uuids;
  if (binary) {
    for (const auto& slice : binary->slices())
      if (slice && slice->uuid()) uuids.insert(*slice->uuid());
  }
  return SUPUploadRecord(std::move(uuids), std::chrono::system_clock::now());
}

std::size_t SUPUploadRecord::hash() const {
  // Order-independent by construction: the set is sorted.
  std::size_t value = uuids_.size();
  for (const std::string& uuid : uuids_)
    value ^= std::hash<std::string>{}(uuid) + 0x9e3779b97f4a7c15ull + (value << 6) + (value >> 2);
  return value;
}

ArchiveUID SUPUploadRecord::encodeWithCoder(KeyedArchiver& coder) const {
  ArchiveUID self = coder.reserveObject();
  ArchiveUID set = coder.reserveObject();
  std::vector<ArchiveUID> members;
  members.reserve(uuids_.size());
  for (const std::string& uuid : uuids_) members.push_back(coder.encodeString(uuid));
  coder.finishCollection(set, kSetClasses, members);
  ArchiveUID date = coder.encodeDate(timeIntervalSinceReferenceDate(uploadDate_));
  coder.finishObject(self, kRecordClasses, {{kUUIDsKey, set}, {kUploadDateKey, date}});
  return self;
}

std::optional<SUPUploadRecord> SUPUploadRecord::initWithCoder(const KeyedUnarchiver& coder, ArchiveUID uid) {
  auto className = coder.classNameOf(uid);
  if (className != kUploadRecordClassName && className != kLegacyUploadRecordClassName) return std::nullopt;

  auto setUID = coder.referenceFor(uid, kUUIDsKey);
  auto members = setUID ? coder.membersOf(*setUID) : std::nullopt;
  if (!members) return std::nullopt;
  std::set<std::string> uuids;
  for (ArchiveUID member : *members) {
    auto uuid = coder.stringAt(member);
    if (!uuid) return std::nullopt;
    uuids.insert(std::move(*uuid));
  }

  auto dateUID = coder.referenceFor(uid, kUploadDateKey);
  auto seconds = dateUID ? coder.dateAt(*dateUID) : std::nullopt;
  // A date the clock cannot hold (not finite, or centuries away) marks a
  // damaged store rather than a real upload.
  constexpr double kLimitSeconds = 1.0e10;  // about 317 years either way
  if (!seconds || !std::isfinite(*seconds) || std::fabs(*seconds) > kLimitSeconds) return std::nullopt;
  return SUPUploadRecord(std::move(uuids), dateWithTimeIntervalSinceReferenceDate(*seconds));
}

}  // namespace symlift::records
