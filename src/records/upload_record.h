#pragma once
// SUPUploadRecord: one uploaded executable, identified by the UUIDs of all
// its slices, with the time it was first recorded. Two records are equal
// when their UUID sets are equal; the date plays no part.

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>

#include "records/keyed_archiver.h"

namespace symlift::macho {
class SUPMachOBinary;
}

namespace symlift::records {

using Date = std::chrono::system_clock::time_point;

// The archived class name, and the older one that stores may still carry.
inline constexpr const char* kUploadRecordClassName = "SUPUploadRecord";
inline constexpr const char* kLegacyUploadRecordClassName = "SYLUploadRecord";

// Dates are archived as seconds since 2001-01-01 00:00:00 UTC.
double timeIntervalSinceReferenceDate(Date date);
Date dateWithTimeIntervalSinceReferenceDate(double seconds);

class SUPUploadRecord {
 public:
  SUPUploadRecord(std::set<std::string> uuids, Date uploadDate);
  // The UUID of every slice that has one, dated now; with no binary the set
  // is empty.
  static SUPUploadRecord initWithMachOBinary(const std::shared_ptr<macho::SUPMachOBinary>& binary);

  const std::set<std::string>& uuids() const { return uuids_; }
  void setUuids(std::set<std::string> uuids) { uuids_ = std::move(uuids); }
  Date uploadDate() const { return uploadDate_; }
  void setUploadDate(Date date) { uploadDate_ = date; }

  bool operator==(const SUPUploadRecord& other) const { return uuids_ == other.uuids_; }
  std::size_t hash() const;

  // Writes the record ("uuids" as a set of strings, then "uploadDate" as a
  // date) and returns its reference.
  ArchiveUID encodeWithCoder(KeyedArchiver& coder) const;
  // The record at uid: of our class (under either name), with a set of
  // strings under "uuids" and a date under "uploadDate"; nothing otherwise.
  static std::optional<SUPUploadRecord> initWithCoder(const KeyedUnarchiver& coder, ArchiveUID uid);

  struct Hasher {
    std::size_t operator()(const SUPUploadRecord& record) const { return record.hash(); }
  };

 private:
  std::set<std::string> uuids_;
  Date uploadDate_;
};

using UploadRecordSet = std::unordered_set<SUPUploadRecord, SUPUploadRecord::Hasher>;

}  // namespace symlift::records
