#include "demangle/swift/known_types.h"

namespace symlift::demangle::swift {

namespace {

struct Known {
  char code;
  NodeKind kind;
  const char* name;
};

constexpr Known kFirstSet[] = {
    {'A', NodeKind::Structure, "AutoreleasingUnsafeMutablePointer"},
    {'a', NodeKind::Structure, "Array"},
    {'B', NodeKind::Protocol, "BinaryFloatingPoint"},
    {'b', NodeKind::Structure, "Bool"},
    {'D', NodeKind::Structure, "Dictionary"},
    {'d', NodeKind::Structure, "Double"},
    {'E', NodeKind::Protocol, "Encodable"},
    {'e', NodeKind::Protocol, "Decodable"},
    {'F', NodeKind::Protocol, "FloatingPoint"},
    {'f', NodeKind::Structure, "Float"},
    {'G', NodeKind::Protocol, "RandomNumberGenerator"},
    {'H', NodeKind::Protocol, "Hashable"},
    {'h', NodeKind::Structure, "Set"},
    {'I', NodeKind::Structure, "DefaultIndices"},
    {'i', NodeKind::Structure, "Int"},
    {'J', NodeKind::Structure, "Character"},
    {'j', NodeKind::Protocol, "Numeric"},
    {'K', NodeKind::Protocol, "BidirectionalCollection"},
    {'k', NodeKind::Protocol, "RandomAccessCollection"},
    {'L', NodeKind::Protocol, "Comparable"},
    {'l', NodeKind::Protocol, "Collection"},
    {'M', NodeKind::Protocol, "MutableCollection"},
    {'m', NodeKind::Protocol, "RangeReplaceableCollection"},
    {'N', NodeKind::Structure, "ClosedRange"},
    {'n', NodeKind::Structure, "Range"},
    {'O', NodeKind::Structure, "ObjectIdentifier"},
    {'P', NodeKind::Structure, "UnsafePointer"},
    {'p', NodeKind::Structure, "UnsafeMutablePointer"},
    {'Q', NodeKind::Protocol, "Equatable"},
    {'q', NodeKind::Enum, "Optional"},
    {'R', NodeKind::Structure, "UnsafeBufferPointer"},
    {'r', NodeKind::Structure, "UnsafeMutableBufferPointer"},
    {'S', NodeKind::Structure, "String"},
    {'s', NodeKind::Structure, "Substring"},
    {'T', NodeKind::Protocol, "Sequence"},
    {'t', NodeKind::Protocol, "IteratorProtocol"},
    {'U', NodeKind::Protocol, "UnsignedInteger"},
    {'u', NodeKind::Structure, "UInt"},
    {'V', NodeKind::Structure, "UnsafeRawPointer"},
    {'v', NodeKind::Structure, "UnsafeMutableRawPointer"},
    {'W', NodeKind::Structure, "UnsafeRawBufferPointer"},
    {'w', NodeKind::Structure, "UnsafeMutableRawBufferPointer"},
    {'X', NodeKind::Protocol, "RangeExpression"},
    {'x', NodeKind::Protocol, "Strideable"},
    {'Y', NodeKind::Protocol, "RawRepresentable"},
    {'y', NodeKind::Protocol, "StringProtocol"},
    {'Z', NodeKind::Protocol, "SignedInteger"},
    {'z', NodeKind::Protocol, "BinaryInteger"},
};

constexpr Known kSecondSet[] = {
    {'A', NodeKind::Protocol, "Actor"},
    {'C', NodeKind::Structure, "CheckedContinuation"},
    {'c', NodeKind::Structure, "UnsafeContinuation"},
    {'E', NodeKind::Structure, "CancellationError"},
    {'e', NodeKind::Structure, "UnownedSerialExecutor"},
    {'F', NodeKind::Protocol, "Executor"},
    {'f', NodeKind::Protocol, "SerialExecutor"},
    {'G', NodeKind::Structure, "TaskGroup"},
    {'g', NodeKind::Structure, "ThrowingTaskGroup"},
    {'h', NodeKind::Protocol, "TaskExecutor"},
    {'I', NodeKind::Protocol, "AsyncIteratorProtocol"},
    {'i', NodeKind::Protocol, "AsyncSequence"},
    {'J', NodeKind::Structure, "UnownedJob"},
    {'M', NodeKind::Class, "MainActor"},
    {'P', NodeKind::Structure, "TaskPriority"},
    {'S', NodeKind::Structure, "AsyncStream"},
    {'s', NodeKind::Structure, "AsyncThrowingStream"},
    {'T', NodeKind::Structure, "Task"},
    {'t', NodeKind::Structure, "UnsafeCurrentTask"},
};

struct Named {
  char code;
  const char* name;
};

constexpr Named kBuiltins[] = {
    {'b', "Builtin.BridgeObject"},
    {'B', "Builtin.UnsafeValueBuffer"},
    {'c', "Builtin.RawUnsafeContinuation"},
    {'D', "Builtin.DefaultActorStorage"},
    {'e', "Builtin.Executor"},
    {'d', "Builtin.NonDefaultDistributedActorStorage"},
    {'I', "Builtin.IntLiteral"},
    {'j', "Builtin.Job"},
    {'P', "Builtin.PackIndex"},
    {'O', "Builtin.UnknownObject"},
    {'o', "Builtin.NativeObject"},
    {'p', "Builtin.RawPointer"},
    {'t', "Builtin.SILToken"},
    {'w', "Builtin.Word"},
    {'A', "Builtin.ImplicitActor"},
};

struct Witness {
  const char* code;
  const char* name;
};

constexpr Witness kWitnesses[] = {
    {"al", "allocateBuffer"},
    {"ca", "assignWithCopy"},
    {"ta", "assignWithTake"},
    {"de", "deallocateBuffer"},
    {"xx", "destroy"},
    {"XX", "destroyBuffer"},
    {"Xx", "destroyArray"},
    {"CP", "initializeBufferWithCopyOfBuffer"},
    {"Cp", "initializeBufferWithCopy"},
    {"cp", "initializeWithCopy"},
    {"TK", "initializeBufferWithTakeOfBuffer"},
    {"Tk", "initializeBufferWithTake"},
    {"tk", "initializeWithTake"},
    {"pr", "projectBuffer"},
    {"xs", "storeExtraInhabitant"},
    {"xg", "getExtraInhabitantIndex"},
    {"Cc", "initializeArrayWithCopy"},
    {"Tt", "initializeArrayWithTakeFrontToBack"},
    {"tT", "initializeArrayWithTakeBackToFront"},
    {"ug", "getEnumTag"},
    {"up", "destructiveProjectEnumData"},
    {"ui", "destructiveInjectEnumTag"},
    {"et", "getEnumTagSinglePayload"},
    {"st", "storeEnumTagSinglePayload"},
};

}  // namespace

NodeId knownType(NodeArena& arena, char c, bool secondSet) {
  const Known* begin = secondSet ? std::begin(kSecondSet) : std::begin(kFirstSet);
  const Known* end = secondSet ? std::end(kSecondSet) : std::end(kFirstSet);
  for (const Known* k = begin; k != end; ++k) {
    if (k->code != c) continue;
    NodeId module = arena.makeText(NodeKind::Module, "Swift");
    NodeId name = arena.makeText(NodeKind::Identifier, k->name);
    return arena.make(k->kind, {module, name});
  }
  return kNoNode;
}

std::string_view builtinTypeName(char c) {
  for (const Named& b : kBuiltins)
    if (b.code == c) return b.name;
  return {};
}

std::string_view valueWitnessName(std::string_view code) {
  if (code.size() != 2) return {};
  for (const Witness& w : kWitnesses)
    if (code == w.code) return w.name;
  return {};
}

}  // namespace symlift::demangle::swift
