/* A stand-in for the symbolication framework: it exports the framework's
   function names (doing nothing), so that the loader can be tested without
   Apple's library. */

#define STUB(name) \
  int name(void) { return 0; }

STUB(CSSymbolicatorForeachSymbolicatorWithPath)
STUB(CSSymbolicatorForeachSharedCache)
STUB(CSSymbolOwnerCopyDescriptionWithIndent)
STUB(CSSymbolicatorCopyDescriptionWithIndent)
STUB(CSSymbolOwnerGetBaseAddress)
STUB(CSSymbolicatorForeachSymbolOwnerAtTime)
STUB(CSSymbolOwnerGetRegionWithName)
STUB(CSRegionForeachSymbol)
STUB(CSSymbolGetName)
STUB(CSSymbolGetMangledName)
STUB(CSSymbolForeachSourceInfo)
STUB(CSSourceInfoGetPath)
STUB(CSSourceInfoGetLineNumber)
STUB(CSSourceInfoGetRange)
STUB(CSSymbolGetRange)
STUB(CSSymbolOwnerGetCFUUIDBytes)
STUB(CSSymbolOwnerIsDsym)
STUB(CSSymbolOwnerIsDylib)
STUB(CSSymbolOwnerIsDyldSharedCache)
STUB(CSSymbolOwnerIsObject)
STUB(CSArchitectureIs64Bit)
STUB(CSArchitectureIsX86_64)
STUB(CSArchitectureGetFamilyName)
STUB(CSIsNull)
STUB(CSSymbolicatorGetArchitecture)
