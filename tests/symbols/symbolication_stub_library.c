/* A stand-in for the symbolication framework: it exports the framework's
   function names (doing nothing), optionally without the fifth one, so that
   the loader's binding can be tested without Apple's library. */

#define STUB(name) \
  int name(void) { return 0; }

STUB(CSSymbolicatorForeachSymbolicatorWithPath)
STUB(CSSymbolicatorForeachSharedCache)
STUB(CSSymbolOwnerCopyDescriptionWithIndent)
STUB(CSSymbolicatorCopyDescriptionWithIndent)
#ifndef STUB_WITHOUT_BASE_ADDRESS
STUB(CSSymbolOwnerGetBaseAddress)
#endif
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
