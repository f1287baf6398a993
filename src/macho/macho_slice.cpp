#include "macho/macho_slice.h"

#include "macho/architecture_names.h"

namespace symlift::macho {

std::string SUPMachOSlice::architectureName() const {
  return sliceArchitectureName(facts_->cputype, facts_->cpusubtype);
}

}  // namespace symlift::macho
