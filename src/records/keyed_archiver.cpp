#include "records/keyed_archiver.h"

#include <cstdlib>
#include <utility>

namespace symlift::records {

namespace {

constexpr const char* kArchiverKey = "$archiver";
constexpr const char* kArchiverName = "NSKeyedArchiver";
constexpr const char* kVersionKey = "$version";
constexpr std::uint64_t kArchiveVersion = 100000;
constexpr const char* kTopKey = "$top";
constexpr const char* kRootKey = "root";
constexpr const char* kObjectsKey = "$objects";
constexpr const char* kNullObject = "$null";
constexpr const char* kClassKey = "$class";
constexpr const char* kClassNameKey = "$classname";
constexpr const char* kClassesKey = "$classes";
constexpr const char* kMembersKey = "NS.objects";
constexpr const char* kTimeKey = "NS.time";
constexpr const char* kMutableStringKey = "NS.string";

std::optional<std::string> stringOfNode(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
  // By pointer and length: libplist's copying getter asserts (and so ends
  // the process) on a string that holds a NUL byte.
  std::uint64_t length = 0;
  const char* value = plist_get_string_ptr(node, &length);
  if (!value) return std::nullopt;
  return std::string(value, length);
}

std::optional<ArchiveUID> uidOfNode(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_UID) return std::nullopt;
  std::uint64_t value = 0;
  plist_get_uid_val(node, &value);
  return value;
}

// The members of an array in order, in one pass (see KeyedUnarchiver).
std::vector<plist_t> arrayMembers(plist_t array) {
  std::vector<plist_t> members;
  members.reserve(plist_array_get_size(array));
  plist_array_iter it = nullptr;
  plist_array_new_iter(array, &it);
  if (!it) return members;
  for (;;) {
    plist_t member = nullptr;
    plist_array_next_item(array, it, &member);
    if (!member) break;
    members.push_back(member);
  }
  std::free(it);
  return members;
}

plist_t dictItem(plist_t dict, const char* key) {
  if (!dict || plist_get_node_type(dict) != PLIST_DICT) return nullptr;
  return plist_dict_get_item(dict, key);
}

// Text as libplist can write it: a binary list keeps non-ASCII strings as
// UTF-16, and libplist writes a list that cannot be read back when a string
// is not valid UTF-8. A store read from damaged bytes may hold such a string;
// each ill-formed sequence becomes U+FFFD so that the other records survive
// the next write.
std::string wellFormedUTF8(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  std::size_t i = 0;
  while (i < text.size()) {
    const unsigned char lead = byte(i);
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // range of the second byte
    if (lead < 0x80) length = 1;
    else if (lead >= 0xC2 && lead <= 0xDF) length = 2;
    else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      if (lead == 0xE0) low = 0xA0;   // no overlong forms
      if (lead == 0xED) high = 0x9F;  // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;  // nothing past U+10FFFF
    }
    bool valid = length > 0 && i + length <= text.size();
    for (std::size_t k = 1; valid && k < length; ++k) {
      const unsigned char c = byte(i + k);
      valid = k == 1 ? (c >= low && c <= high) : (c >= 0x80 && c <= 0xBF);
    }
    if (valid) {
      result.append(text, i, length);
      i += length;
    } else {
      result.append("\xEF\xBF\xBD");
      ++i;
    }
  }
  return result;
}

}  // namespace

// ---------------------------------------------------------------------------
// Writing

KeyedArchiver::KeyedArchiver() {
  objects_.emplace_back(plist_new_string(kNullObject));
}

ArchiveUID KeyedArchiver::reserveObject() {
  ArchiveUID uid = objects_.size();
  // A placeholder until the object's contents are known.
  objects_.emplace_back(plist_new_string(kNullObject));
  return uid;
}

ArchiveUID KeyedArchiver::classReference(const std::vector<std::string>& classes) {
  const std::string& name = classes.front();
  if (auto found = classes_.find(name); found != classes_.end()) return found->second;
  plist_t description = plist_new_dict();
  plist_t chain = plist_new_array();
  for (const std::string& entry : classes) plist_array_append_item(chain, plist_new_string(entry.c_str()));
  plist_dict_set_item(description, kClassesKey, chain);
  plist_dict_set_item(description, kClassNameKey, plist_new_string(name.c_str()));
  ArchiveUID uid = objects_.size();
  objects_.emplace_back(description);
  classes_.emplace(name, uid);
  return uid;
}

void KeyedArchiver::finishObject(ArchiveUID uid, const std::vector<std::string>& classes,
                                 const std::map<std::string, ArchiveUID>& fields) {
  plist_t object = plist_new_dict();
  for (const auto& [key, reference] : fields) plist_dict_set_item(object, key.c_str(), plist_new_uid(reference));
  plist_dict_set_item(object, kClassKey, plist_new_uid(classReference(classes)));
  objects_[uid] = support::PropertyList(object);
}

void KeyedArchiver::finishCollection(ArchiveUID uid, const std::vector<std::string>& classes,
                                     const std::vector<ArchiveUID>& members) {
  plist_t object = plist_new_dict();
  plist_t references = plist_new_array();
  for (ArchiveUID member : members) plist_array_append_item(references, plist_new_uid(member));
  plist_dict_set_item(object, kMembersKey, references);
  plist_dict_set_item(object, kClassKey, plist_new_uid(classReference(classes)));
  objects_[uid] = support::PropertyList(object);
}

ArchiveUID KeyedArchiver::encodeString(const std::string& string) {
  if (auto found = strings_.find(string); found != strings_.end()) return found->second;
  ArchiveUID uid = objects_.size();
  objects_.emplace_back(plist_new_string(wellFormedUTF8(string).c_str()));
  strings_.emplace(string, uid);
  return uid;
}

ArchiveUID KeyedArchiver::encodeDate(double timeIntervalSinceReferenceDate) {
  ArchiveUID uid = reserveObject();
  plist_t object = plist_new_dict();
  plist_dict_set_item(object, kTimeKey, plist_new_real(timeIntervalSinceReferenceDate));
  plist_dict_set_item(object, kClassKey, plist_new_uid(classReference({"NSDate", "NSObject"})));
  objects_[uid] = support::PropertyList(object);
  return uid;
}

std::string KeyedArchiver::finishEncodingWithRoot(ArchiveUID root) {
  support::PropertyList archive(plist_new_dict());
  plist_t top = plist_new_dict();
  plist_dict_set_item(top, kRootKey, plist_new_uid(root));
  plist_dict_set_item(archive.node(), kVersionKey, plist_new_uint(kArchiveVersion));
  plist_dict_set_item(archive.node(), kArchiverKey, plist_new_string(kArchiverName));
  plist_dict_set_item(archive.node(), kTopKey, top);
  plist_t objects = plist_new_array();
  for (const support::PropertyList& object : objects_) plist_array_append_item(objects, plist_copy(object.node()));
  plist_dict_set_item(archive.node(), kObjectsKey, objects);

  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(archive.node(), &bytes, &length);
  if (!bytes) return {};
  std::string result(bytes, length);
  plist_to_bin_free(bytes);
  return result;
}

// ---------------------------------------------------------------------------
// Reading

std::optional<KeyedUnarchiver> KeyedUnarchiver::fromBytes(std::string_view bytes) {
  support::PropertyList plist = support::PropertyList::fromBytes(bytes);
  if (!plist.isDictionary()) return std::nullopt;
  if (stringOfNode(plist.itemForKey(kArchiverKey)) != kArchiverName) return std::nullopt;
  plist_t objects = plist.itemForKey(kObjectsKey);
  if (!objects || plist_get_node_type(objects) != PLIST_ARRAY) return std::nullopt;
  auto root = uidOfNode(dictItem(plist.itemForKey(kTopKey), kRootKey));
  if (!root) return std::nullopt;
  std::vector<plist_t> members = arrayMembers(objects);
  return KeyedUnarchiver(std::move(plist), std::move(members), *root);
}

plist_t KeyedUnarchiver::objectAt(ArchiveUID uid) const {
  if (uid == kArchiveNullUID || uid >= objects_.size()) return nullptr;
  return objects_[uid];
}

std::optional<std::string> KeyedUnarchiver::classNameOf(ArchiveUID uid) const {
  auto classUID = uidOfNode(dictItem(objectAt(uid), kClassKey));
  if (!classUID) return std::nullopt;
  return stringOfNode(dictItem(objectAt(*classUID), kClassNameKey));
}

std::optional<std::string> KeyedUnarchiver::stringAt(ArchiveUID uid) const {
  plist_t object = objectAt(uid);
  if (auto plain = stringOfNode(object)) return plain;
  // A mutable string is archived as an object holding its text.
  return stringOfNode(dictItem(object, kMutableStringKey));
}

std::optional<std::vector<ArchiveUID>> KeyedUnarchiver::membersOf(ArchiveUID uid) const {
  plist_t references = dictItem(objectAt(uid), kMembersKey);
  if (!references || plist_get_node_type(references) != PLIST_ARRAY) return std::nullopt;
  std::vector<ArchiveUID> members;
  const std::vector<plist_t> nodes = arrayMembers(references);
  members.reserve(nodes.size());
  for (plist_t node : nodes) {
    auto member = uidOfNode(node);
    if (!member) return std::nullopt;
    members.push_back(*member);
  }
  return members;
}

std::optional<double> KeyedUnarchiver::dateAt(ArchiveUID uid) const {
  plist_t time = dictItem(objectAt(uid), kTimeKey);
  if (!time) return std::nullopt;
  switch (plist_get_node_type(time)) {
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(time, &value);
      return value;
    }
    case PLIST_UINT: {
      std::uint64_t value = 0;
      plist_get_uint_val(time, &value);
      // libplist keeps negative integers as their two's-complement bits.
      return static_cast<double>(static_cast<std::int64_t>(value));
    }
    default:
      return std::nullopt;
  }
}

std::optional<ArchiveUID> KeyedUnarchiver::referenceFor(ArchiveUID uid, const char* key) const {
  return uidOfNode(dictItem(objectAt(uid), key));
}

}  // namespace symlift::records
