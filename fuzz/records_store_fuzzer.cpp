// Arbitrary bytes as the upload-record store ("records.dat"): the property
// list parser, the keyed-archive reader and the record decoder. Whatever
// decodes must survive writing it back: archiving the records and reading
// them again gives the same UUID sets with the same dates (to the rounding of
// the seconds).

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "records/keyed_archiver.h"
#include "records/upload_record.h"
#include "records/upload_record_archive.h"

namespace {

using symlift::records::SUPUploadRecord;
using symlift::records::UploadRecordSet;

std::map<std::set<std::string>, SUPUploadRecord> byUUIDs(const UploadRecordSet& records) {
  std::map<std::set<std::string>, SUPUploadRecord> keyed;
  for (const SUPUploadRecord& record : records) keyed.emplace(record.uuids(), record);
  return keyed;
}

bool isASCII(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// Every accessor of the archive reader on the first few references, whatever
// they hold: each must answer nothing rather than read what is not there.
void walkArchive(std::string_view bytes) {
  auto coder = symlift::records::KeyedUnarchiver::fromBytes(bytes);
  if (!coder) return;
  std::size_t total = 0;
  for (symlift::records::ArchiveUID uid = 0; uid < 16; ++uid) {
    if (auto name = coder->classNameOf(uid)) total += name->size();
    if (auto text = coder->stringAt(uid)) total += text->size();
    if (auto members = coder->membersOf(uid)) total += members->size();
    if (auto seconds = coder->dateAt(uid)) total += std::isfinite(*seconds) ? 1 : 2;
    if (auto reference = coder->referenceFor(uid, "uuids")) total += *reference;
  }
  volatile std::size_t sink = total;
  (void)sink;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  walkArchive(bytes);

  auto records = symlift::records::unarchiveUploadRecords(bytes);
  if (!records) return 0;
  const std::string rewritten = symlift::records::archivedDataWithUploadRecords(*records);
  auto reread = symlift::records::unarchiveUploadRecords(rewritten);
  if (!reread) std::abort();  // our own archive of decoded records must decode
  const auto before = byUUIDs(*records);
  const auto after = byUUIDs(*reread);
  for (const auto& [uuids, record] : before) {
    // Text outside ASCII in a string the file marks as ASCII is malformed
    // and is written back as the property-list writer sees fit; UUID texts
    // are always ASCII.
    if (!std::all_of(uuids.begin(), uuids.end(), isASCII)) continue;
    auto found = after.find(uuids);
    if (found == after.end()) std::abort();
    // Dates travel as seconds in a double: allow the rounding of one trip.
    auto drift = found->second.uploadDate() - record.uploadDate();
    if (drift > std::chrono::microseconds(1) || drift < -std::chrono::microseconds(1)) std::abort();
  }
  return 0;
}
