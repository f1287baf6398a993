#pragma once
// What a node of a read Swift name stands for. Both manglings (the current
// one and Swift 3's) are read into these same kinds, so one printer serves
// both.

#include <cstdint>

namespace symlift::demangle::swift {

enum class NodeKind : std::uint8_t {
  // Names and markers.
  Identifier,
  Module,
  LocalDeclName,        // child: identifier; index: discriminator
  PrivateDeclName,      // children: discriminator, identifier (identifier may be missing)
  RelatedEntityDeclName,  // text: kind letter; child: identifier
  PrefixOperator,
  PostfixOperator,
  InfixOperator,
  LabelList,            // children: Identifier or FirstElementMarker ("_")
  EmptyLabel,
  FirstElementMarker,   // '_' in lists
  EmptyList,            // 'y'
  VariadicMarker,
  Number,

  // Declarations.
  Class,
  Structure,
  Enum,
  Protocol,
  TypeAlias,
  OtherNominalType,
  Extension,            // children: module, extended entity, generic signature?
  Function,             // context, name, [label list], type
  Variable,             // context, name, [label list], type
  Subscript,            // context, [label list], type, [private discriminator]
  Allocator,            // context, [label list], type
  Constructor,
  Destructor,
  Deallocator,
  IsolatedDeallocator,
  IVarInitializer,
  IVarDestroyer,
  ExplicitClosure,      // context, [type]; index
  ImplicitClosure,
  DefaultArgumentInitializer,  // context; index
  Initializer,          // variable initializer: child variable
  PropertyWrapperBackingInitializer,
  PropertyWrappedFieldInitAccessor,
  PropertyWrapperInitFromProjectedValue,
  Accessor,             // child: storage; text: accessor name
  Static,               // child: entity
  AnonymousContext,     // unknown runtime context: context, identifier
  GenericTypeParamDecl,
  AssociatedTypeDecl,
  MacroExpansion,       // text: description; children vary
  OutlinedVariable,     // child entity; index; text "read-only object" or "variable"
  AsyncMainEntry,       // the async entry point of top-level code (async_Main)

  // Types.
  BuiltinType,          // text
  BuiltinVector,        // child type; index count
  BuiltinFixedArray,    // count, element
  BuiltinBorrow,
  IntegerType,          // index (signed in text)
  BoundGeneric,         // base, TypeList
  TypeList,
  Tuple,                // TupleElements
  TupleElement,         // [label], type; index bit 0: variadic
  FunctionType,         // see FunctionTypeFlags: children params, result, [throw type], [isolation]
  ArgumentTuple,
  ImplFunctionType,
  ImplParameter,        // text convention; child type; index attributes
  ImplResult,
  ImplErrorResult,
  ImplYield,
  ImplSubstitutions,    // "for <...>" children: types
  ImplPatternSubstitutions,
  MetatypeType,         // child: type; text: representation
  ExistentialMetatype,
  ProtocolList,         // children: protocols
  ProtocolListWithClass,   // protocols, class
  ProtocolListWithAnyObject,
  ConstrainedExistential,  // base, requirements
  InOut,
  Shared,
  Owned,
  Sending,
  Isolated,
  CompileTimeConst,
  NoDerivative,
  LifetimeDependence,   // text: scope / inherit; child type
  ReferenceStorage,     // text: weak / unowned / unowned(unsafe); child type
  DynamicSelf,
  SILBox,               // fields
  SILBoxGeneric,
  SILBoxField,          // index bit 0: mutable
  ErrorType,
  GenericParam,         // index: depth << 32 | index
  DependentMember,      // base, assoc-type name (Identifier or ProtocolQualifiedName)
  AssocTypeWithProtocol,  // identifier, protocol
  DependentGenericType,   // signature, type
  GenericSignature,     // children: param count list (Number) then requirements; index: flags
  GenericParamCount,    // index
  RequirementConformance,   // subject, protocol
  RequirementSameType,      // subject, type
  RequirementBaseClass,
  RequirementLayout,    // subject; text layout
  RequirementInverse,   // subject; index bit
  RequirementSameShape,
  GenericParamPack,     // index: param id (pack marker)
  GenericParamValue,    // type, param
  PackType,             // "Pack{...}"
  SILPackType,
  PackExpansion,        // pattern, count
  PackElement,          // type; index level
  OpaqueReturnTypeOf,   // entity (QO)
  OpaqueType,           // descriptor, args(TypeList of TypeLists), index
  OpaqueReturnTypeRef,  // Qr / QR / Qu; index
  Sugar,                // text: "?" "!" "[]" "[:]" ; children
  TypeAliasSugar,       // (XS*)
  UnknownNominalType,

  // Conformances.
  ProtocolConformance,  // type, protocol, [module], [generic sig]
  ConcreteConformance,  // type, conformance ref, list
  ConformanceRef,       // protocol, [module]; text kind
  DependentConformanceRoot,
  DependentConformanceInherited,
  DependentConformanceAssociated,
  DependentAssociatedConformance,
  PackConformance,
  RetroactiveConformance,

  // Global forms.
  Global,
  Suffix,               // unmangled suffix text
  Prefixed,             // a global with a text prefix: text, child
  Described,            // text "<description> for"/"of" + child
  SpecializationParam,
  Specialization,       // text kind, children params; index pass
  FunctionSigSpecialization,
  FuncSigParam,         // text description, children payload
  ReabstractionThunk,   // text, children from-type, to-type, [generic sig]
  ProtocolWitness,      // conformance, entity
  ConformanceDescriptor,
  Thunk,                // text, children
  AutoDiff,             // text
  IndexSubset,
  AsyncPartial,         // text; index
  FunctionAttr,         // text; optional child type (global actor, typed throws)
  TypeMangling,         // child: a type given as a whole global
};

// Declarations a name can be nested in.
inline bool isNominal(NodeKind k) {
  return k == NodeKind::Class || k == NodeKind::Structure || k == NodeKind::Enum || k == NodeKind::Protocol ||
         k == NodeKind::TypeAlias || k == NodeKind::OtherNominalType;
}

inline bool isEntity(NodeKind k) {
  switch (k) {
    case NodeKind::Function: case NodeKind::Variable: case NodeKind::Subscript: case NodeKind::Allocator:
    case NodeKind::Constructor: case NodeKind::Destructor: case NodeKind::Deallocator:
    case NodeKind::IsolatedDeallocator: case NodeKind::IVarInitializer: case NodeKind::IVarDestroyer:
    case NodeKind::ExplicitClosure: case NodeKind::ImplicitClosure: case NodeKind::DefaultArgumentInitializer:
    case NodeKind::Initializer: case NodeKind::PropertyWrapperBackingInitializer:
    case NodeKind::PropertyWrappedFieldInitAccessor: case NodeKind::PropertyWrapperInitFromProjectedValue:
    case NodeKind::Accessor: case NodeKind::Static: case NodeKind::AnonymousContext:
    case NodeKind::GenericTypeParamDecl: case NodeKind::AssociatedTypeDecl: case NodeKind::MacroExpansion:
    case NodeKind::OutlinedVariable: case NodeKind::AsyncMainEntry:
      return true;
    default:
      return isNominal(k);
  }
}

inline bool isContext(NodeKind k) {
  return isEntity(k) || k == NodeKind::Module || k == NodeKind::Extension || k == NodeKind::BoundGeneric;
}

// Declaration names (what a C, V, F... operator takes as its name).
inline bool isDeclName(NodeKind k) {
  return k == NodeKind::Identifier || k == NodeKind::LocalDeclName || k == NodeKind::PrivateDeclName ||
         k == NodeKind::RelatedEntityDeclName || k == NodeKind::PrefixOperator ||
         k == NodeKind::PostfixOperator || k == NodeKind::InfixOperator;
}

inline bool isType(NodeKind k) {
  switch (k) {
    case NodeKind::BuiltinType: case NodeKind::BuiltinVector: case NodeKind::BuiltinFixedArray:
    case NodeKind::BuiltinBorrow: case NodeKind::IntegerType: case NodeKind::BoundGeneric: case NodeKind::Tuple:
    case NodeKind::FunctionType: case NodeKind::ImplFunctionType: case NodeKind::MetatypeType:
    case NodeKind::ExistentialMetatype: case NodeKind::ProtocolList: case NodeKind::ProtocolListWithClass:
    case NodeKind::ProtocolListWithAnyObject: case NodeKind::ConstrainedExistential: case NodeKind::InOut:
    case NodeKind::Shared: case NodeKind::Owned: case NodeKind::Sending: case NodeKind::Isolated:
    case NodeKind::CompileTimeConst: case NodeKind::NoDerivative: case NodeKind::LifetimeDependence:
    case NodeKind::ReferenceStorage:
    case NodeKind::DynamicSelf: case NodeKind::SILBox: case NodeKind::SILBoxGeneric: case NodeKind::ErrorType:
    case NodeKind::GenericParam: case NodeKind::DependentMember: case NodeKind::DependentGenericType:
    case NodeKind::PackType: case NodeKind::SILPackType: case NodeKind::PackExpansion: case NodeKind::PackElement:
    case NodeKind::OpaqueType: case NodeKind::OpaqueReturnTypeRef: case NodeKind::Sugar:
    case NodeKind::TypeAliasSugar: case NodeKind::UnknownNominalType:
      return true;
    default:
      return isNominal(k);
  }
}

}  // namespace symlift::demangle::swift
