#pragma once
// Writing and reading the keyed-archive object graph that Foundation's
// NSKeyedArchiver produces, as a binary property list:
//
//   { "$archiver": "NSKeyedArchiver", "$version": 100000,
//     "$top": { "root": UID(1) },
//     "$objects": [ "$null", <object 1>, <object 2>, ... ] }
//
// Every object lives in "$objects" and is referred to by its index (a UID).
// Strings are plain strings; every other object is a dictionary whose
// "$class" refers to a class description { "$classname": name,
// "$classes": [name, superclass, ..., "NSObject"] }. Sets and arrays keep
// their members as an "NS.objects" array of UIDs; a date keeps "NS.time",
// the seconds since 2001-01-01 00:00:00 UTC as a real. UID 0 ("$null") is
// a nil reference.
//
// Only the kinds of object the upload records need are covered: strings,
// sets, arrays, dates and keyed objects of our own classes.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/property_list.h"

namespace symlift::records {

// Index of an object in "$objects".
using ArchiveUID = std::uint64_t;

inline constexpr ArchiveUID kArchiveNullUID = 0;

// Builds the object graph top-down the way the platform's archiver does: an
// object's slot is taken when it starts being encoded, its members follow it,
// and its class description is written (once per class) after its members.
class KeyedArchiver {
 public:
  KeyedArchiver();

  // Takes the next slot for an object whose contents come later.
  ArchiveUID reserveObject();
  // Fills a reserved slot with a keyed object of the given class; fields
  // map keys to references. classes is the class chain, most derived first.
  void finishObject(ArchiveUID uid, const std::vector<std::string>& classes,
                    const std::map<std::string, ArchiveUID>& fields);
  // Fills a reserved slot with a set or array whose members are references.
  void finishCollection(ArchiveUID uid, const std::vector<std::string>& classes,
                        const std::vector<ArchiveUID>& members);

  // A string; equal strings share one slot.
  ArchiveUID encodeString(const std::string& string);
  // An NSDate for the given seconds since 2001-01-01 00:00:00 UTC.
  ArchiveUID encodeDate(double timeIntervalSinceReferenceDate);

  // The finished archive with root as "$top"."root", in binary form.
  std::string finishEncodingWithRoot(ArchiveUID root);

 private:
  ArchiveUID classReference(const std::vector<std::string>& classes);

  // The slots of "$objects", filled in any order (libplist replaces the
  // n-th member of an array by walking the members before it).
  std::vector<support::PropertyList> objects_;
  std::map<std::string, ArchiveUID> strings_;
  std::map<std::string, ArchiveUID> classes_;
};

// Read access to a decoded archive. Every accessor checks the reference and
// the kind of what it finds and answers nothing when they do not fit, so a
// damaged or foreign file can never make it read out of bounds.
class KeyedUnarchiver {
 public:
  // Nothing unless bytes are a property list with the archive's four keys,
  // "$archiver" "NSKeyedArchiver" and a "$top" "root" reference.
  static std::optional<KeyedUnarchiver> fromBytes(std::string_view bytes);

  ArchiveUID root() const { return root_; }

  // The class name of a keyed object, collection or date.
  std::optional<std::string> classNameOf(ArchiveUID uid) const;
  // A plain string, or an NSMutableString's "NS.string".
  std::optional<std::string> stringAt(ArchiveUID uid) const;
  // The member references of a set or array ("NS.objects").
  std::optional<std::vector<ArchiveUID>> membersOf(ArchiveUID uid) const;
  // The "NS.time" of a date (a real, or an integer as some writers store
  // whole seconds).
  std::optional<double> dateAt(ArchiveUID uid) const;
  // The reference stored under key in a keyed object.
  std::optional<ArchiveUID> referenceFor(ArchiveUID uid, const char* key) const;

 private:
  explicit KeyedUnarchiver(support::PropertyList plist, std::vector<plist_t> objects, ArchiveUID root)
      : plist_(std::move(plist)), objects_(std::move(objects)), root_(root) {}

  // The object at uid, or nullptr when it is out of range or "$null".
  plist_t objectAt(ArchiveUID uid) const;

  support::PropertyList plist_;
  // The members of "$objects", owned by plist_. Collected once: libplist
  // finds the n-th member of a parsed array by walking the members before it,
  // so looking each reference up there would make decoding quadratic.
  std::vector<plist_t> objects_;
  ArchiveUID root_ = kArchiveNullUID;
};

}  // namespace symlift::records
