#pragma once
// The fixed words that stand before a global's subject ("type metadata for
// X", "@objc X"), in the full form and in the simplified one.

#include <cstdint>

namespace symlift::demangle::swift {

enum class Phrase : std::uint8_t {
  TypeMetadata, FullTypeMetadata, TypeMetadataPattern, TypeMetadataAccessor, TypeMetadataLazyCache,
  CompletionFunction, InstantiationFunction, InstantiationCache, SingletonInitCache, Metaclass,
  NominalTypeDescriptor, OpaqueTypeDescriptor, MethodLookup, ObjCUpdate, ObjCStub, FullObjCStub,
  ModuleDescriptor, ExtensionDescriptor, AnonymousDescriptor, ProtocolDescriptor, ProtocolRecord,
  NominalRecord, OpaqueRecord, ConformanceRecord, AccessibleFunctionRecord, BaseOffset,
  FieldDescriptor, BuiltinDescriptor, AssocTypeReflection, SuperclassDescriptor, PartialApply,
  ObjCPartialApply, HasSymbol, SelfConformanceDescriptor, SelfConformanceWitnessTable,
  ConformanceDescriptor, WitnessTable, WitnessTableAccessor, GenericWitnessTable, WitnessTablePattern,
  ResilientWitnessTable, WitnessTableInstantiation, ValueWitnessTable, FieldOffset, DirectFieldOffset,
  IndirectFieldOffset, EnumTagIndex, GlobalInstantiationCache, NoncanonicalCache, Noncanonical,
  CanonicalCachingToken, UniquingPrefix, OneTimeInitFunction, OneTimeInitToken, DispatchThunk,
  MethodDescriptor, NonObjC, ObjC, Dynamic, DirectThunk, DistributedThunk, DistributedAccessor,
  DynamicallyReplaceable, AsyncFunctionPointer, DynamicFunctionVariable, BackDeployThunk,
  BackDeployFallback, CoroFunctionPointer, DefaultOverride, ContinuationPrototype,
  SelfConformanceWitness, Merged, CurryThunk, ProtocolRequirementsBase, AssocTypeDescriptor,
  DefaultAssocTypeAccessor, AssocConformanceDescriptor, DefaultAssocConformanceAccessor,
  BaseConformanceDescriptor, DemanglingCache, PropertyDescriptor, OutlinedCopy, OutlinedConsume,
  OutlinedRetain, OutlinedRelease, OutlinedInitWithTake, OutlinedInitWithCopy, OutlinedAssignWithTake,
  OutlinedAssignWithCopy, OutlinedDestroy, OutlinedStoreEnumTag, OutlinedEnumProject,
  OutlinedEnumGetTag, KeyPathGetter, KeyPathSetter, KeyPathEquals, KeyPathHash,
  KeyPathUnappliedMethod, KeyPathAppliedMethod, WitnessTableOffset, GenericWitnessTableOld,
  LazyWitnessTableCache, LazyWitnessTableAccessor, AssocTypeMetadataAccessor,
  AssocTypeWitnessTableAccessor, BaseWitnessTableAccessor, GlobalActorThunk, VTableThunk,
  ValueWitnessTablePrefix,
  Count
};

struct PhraseText {
  const char* full;
  const char* simplified;
};

const PhraseText& phraseText(Phrase phrase);

}  // namespace symlift::demangle::swift
