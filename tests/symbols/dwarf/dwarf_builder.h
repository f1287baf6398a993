#pragma once
// Builds small DWARF sections and Mach-O images in code, from readable
// descriptions: abbreviations, DIEs written attribute by attribute, line
// programs written opcode by opcode, and a Mach-O file around them.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace symlift::symbols::dwarf::testing {

// DWARF numbers used by the tests.
namespace dw {
enum : std::uint32_t {
  TAG_compile_unit = 0x11, TAG_subprogram = 0x2e, TAG_inlined_subroutine = 0x1d, TAG_variable = 0x34,
  TAG_class_type = 0x02,
  AT_name = 0x03, AT_stmt_list = 0x10, AT_low_pc = 0x11, AT_high_pc = 0x12, AT_comp_dir = 0x1b,
  AT_abstract_origin = 0x31, AT_declaration = 0x3c, AT_specification = 0x47, AT_ranges = 0x55,
  AT_linkage_name = 0x6e, AT_str_offsets_base = 0x72, AT_addr_base = 0x73, AT_rnglists_base = 0x74,
  AT_MIPS_linkage_name = 0x2007, AT_byte_size = 0x0b, AT_location = 0x02, AT_type = 0x49,
  AT_const_value = 0x1c, AT_external = 0x3f, AT_signature = 0x69,
  FORM_addr = 0x01, FORM_block2 = 0x03, FORM_block4 = 0x04, FORM_data2 = 0x05, FORM_data4 = 0x06,
  FORM_data8 = 0x07, FORM_string = 0x08, FORM_block = 0x09, FORM_block1 = 0x0a, FORM_data1 = 0x0b,
  FORM_flag = 0x0c, FORM_sdata = 0x0d, FORM_strp = 0x0e, FORM_udata = 0x0f, FORM_ref_addr = 0x10,
  FORM_ref1 = 0x11, FORM_ref2 = 0x12, FORM_ref4 = 0x13, FORM_ref8 = 0x14, FORM_ref_udata = 0x15,
  FORM_indirect = 0x16, FORM_sec_offset = 0x17, FORM_exprloc = 0x18, FORM_flag_present = 0x19,
  FORM_strx = 0x1a, FORM_addrx = 0x1b, FORM_data16 = 0x1e, FORM_line_strp = 0x1f, FORM_ref_sig8 = 0x20,
  FORM_implicit_const = 0x21, FORM_loclistx = 0x22, FORM_rnglistx = 0x23, FORM_strx1 = 0x25,
  FORM_strx2 = 0x26, FORM_strx3 = 0x27, FORM_strx4 = 0x28, FORM_addrx1 = 0x29, FORM_addrx2 = 0x2a,
  FORM_addrx3 = 0x2b, FORM_addrx4 = 0x2c,
};
}  // namespace dw

class Writer {
 public:
  std::vector<std::uint8_t> bytes;

  std::size_t size() const { return bytes.size(); }
  Writer& fixed(unsigned width, std::uint64_t value) {
    for (unsigned i = 0; i < width; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    return *this;
  }
  Writer& u8(std::uint64_t v) { return fixed(1, v); }
  Writer& u16(std::uint64_t v) { return fixed(2, v); }
  Writer& u32(std::uint64_t v) { return fixed(4, v); }
  Writer& u64(std::uint64_t v) { return fixed(8, v); }
  Writer& uleb(std::uint64_t v) {
    do {
      std::uint8_t byte = v & 0x7f;
      v >>= 7;
      bytes.push_back(byte | (v ? 0x80 : 0));
    } while (v);
    return *this;
  }
  Writer& sleb(std::int64_t v) {
    bool more = true;
    while (more) {
      std::uint8_t byte = v & 0x7f;
      v >>= 7;
      more = !((v == 0 && !(byte & 0x40)) || (v == -1 && (byte & 0x40)));
      bytes.push_back(byte | (more ? 0x80 : 0));
    }
    return *this;
  }
  Writer& str(std::string_view text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.push_back(0);
    return *this;
  }
  Writer& raw(const std::vector<std::uint8_t>& data) {
    bytes.insert(bytes.end(), data.begin(), data.end());
    return *this;
  }
  Writer& zeros(std::size_t count) {
    bytes.insert(bytes.end(), count, 0);
    return *this;
  }
  void patch(std::size_t at, unsigned width, std::uint64_t value) {
    for (unsigned i = 0; i < width; ++i) bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
};

// A string section (.debug_str, .debug_line_str): add() gives the offset.
class StringSection {
 public:
  StringSection() { writer_.u8(0); }
  std::uint64_t add(std::string_view text) {
    std::uint64_t offset = writer_.size();
    writer_.str(text);
    return offset;
  }
  const std::vector<std::uint8_t>& bytes() const { return writer_.bytes; }

 private:
  Writer writer_;
};

struct AttributeForm {
  std::uint32_t attribute;
  std::uint32_t form;
  std::int64_t implicitConst = 0;
};

class AbbreviationWriter {
 public:
  // Returns the code of the new abbreviation (1, 2, 3, ...).
  std::uint64_t add(std::uint32_t tag, bool children, const std::vector<AttributeForm>& attributes) {
    ++code_;
    writer_.uleb(code_).uleb(tag).u8(children ? 1 : 0);
    for (const AttributeForm& attribute : attributes) {
      writer_.uleb(attribute.attribute).uleb(attribute.form);
      if (attribute.form == dw::FORM_implicit_const) writer_.sleb(attribute.implicitConst);
    }
    writer_.uleb(0).uleb(0);
    return code_;
  }
  std::vector<std::uint8_t> bytes() const {
    Writer copy = writer_;
    copy.u8(0);
    return copy.bytes;
  }

 private:
  Writer writer_;
  std::uint64_t code_ = 0;
};

// One unit appended to a .debug_info writer; DIEs are written to info().
class UnitWriter {
 public:
  UnitWriter(Writer& info, std::uint16_t version, unsigned offsetSize, unsigned addressSize,
             std::uint64_t abbreviationOffset = 0)
      : info_(info), offsetSize_(offsetSize), start_(info.size()) {
    if (offsetSize == 8) info.u32(0xffffffffu).u64(0);
    else info.u32(0);
    info.u16(version);
    if (version >= 5) info.u8(1).u8(addressSize).fixed(offsetSize, abbreviationOffset);
    else info.fixed(offsetSize, abbreviationOffset).u8(addressSize);
  }
  Writer& info() { return info_; }
  std::uint64_t start() const { return start_; }
  // The offset of the next DIE relative to the unit (for DW_FORM_ref*).
  std::uint64_t here() const { return info_.size() - start_; }
  Writer& offset(std::uint64_t value) { return info_.fixed(offsetSize_, value); }
  void finish() {
    if (offsetSize_ == 8) info_.patch(start_ + 4, 8, info_.size() - start_ - 12);
    else info_.patch(start_, 4, info_.size() - start_ - 4);
  }

 private:
  Writer& info_;
  unsigned offsetSize_;
  std::size_t start_;
};

// A line-number program with its header.
class LineProgram {
 public:
  LineProgram(std::uint16_t version, unsigned offsetSize = 4, unsigned addressSize = 8)
      : version_(version), offsetSize_(offsetSize), addressSize_(addressSize) {}

  std::uint8_t lineBase = static_cast<std::uint8_t>(-5);
  std::uint8_t lineRange = 14;
  std::uint8_t opcodeBase = 13;
  std::uint8_t minInstructionLength = 1;
  // Directories and files; in DWARF 5 directory 0 and file 0 come first.
  std::vector<std::string> directories;
  std::vector<std::pair<std::string, std::uint64_t>> files;  // name, directory index
  // DWARF 5 only: write paths as DW_FORM_line_strp into this section.
  StringSection* lineStrings = nullptr;

  Writer ops;
  LineProgram& setAddress(std::uint64_t address) {
    ops.u8(0).uleb(1 + addressSize_).u8(2).fixed(addressSize_, address);
    return *this;
  }
  LineProgram& endSequence() {
    ops.u8(0).uleb(1).u8(1);
    return *this;
  }
  LineProgram& copy() { return op(1); }
  LineProgram& advancePc(std::uint64_t n) {
    ops.u8(2).uleb(n);
    return *this;
  }
  LineProgram& advanceLine(std::int64_t n) {
    ops.u8(3).sleb(n);
    return *this;
  }
  LineProgram& setFile(std::uint64_t n) {
    ops.u8(4).uleb(n);
    return *this;
  }
  LineProgram& negateStmt() { return op(6); }
  LineProgram& constAddPc() { return op(8); }
  LineProgram& fixedAdvancePc(std::uint16_t n) {
    ops.u8(9).u16(n);
    return *this;
  }
  // A special opcode that advances the address and the line, then adds a row.
  LineProgram& special(unsigned addressAdvance, int lineAdvance) {
    int adjusted = (lineAdvance - static_cast<std::int8_t>(lineBase)) + lineRange * static_cast<int>(addressAdvance);
    return op(static_cast<std::uint8_t>(adjusted + opcodeBase));
  }
  LineProgram& op(std::uint8_t opcode) {
    ops.u8(opcode);
    return *this;
  }

  std::vector<std::uint8_t> bytes() const {
    Writer header;
    header.u8(minInstructionLength);
    if (version_ >= 4) header.u8(1);
    header.u8(1).u8(lineBase).u8(lineRange).u8(opcodeBase);
    static const std::uint8_t kLengths[] = {0, 1, 1, 1, 1, 0, 0, 0, 1, 0, 0, 1};
    for (unsigned i = 1; i < opcodeBase; ++i) header.u8(i <= 12 ? kLengths[i - 1] : 2);  // later opcodes: two operands
    if (version_ >= 5) {
      const unsigned pathForm = lineStrings ? dw::FORM_line_strp : dw::FORM_string;
      header.u8(1).uleb(1).uleb(pathForm).uleb(directories.size());
      for (const std::string& directory : directories) path(header, directory);
      header.u8(3).uleb(1).uleb(pathForm).uleb(2).uleb(dw::FORM_udata).uleb(5).uleb(dw::FORM_data16);
      header.uleb(files.size());
      for (const auto& [name, directory] : files) {
        path(header, name);
        header.uleb(directory).zeros(16);
      }
    } else {
      for (const std::string& directory : directories) header.str(directory);
      header.u8(0);
      for (const auto& [name, directory] : files) header.str(name).uleb(directory).uleb(0).uleb(0);
      header.u8(0);
    }
    Writer unit;
    Writer rest;
    rest.u16(version_);
    if (version_ >= 5) rest.u8(addressSize_).u8(0);
    rest.fixed(offsetSize_, header.size()).raw(header.bytes).raw(ops.bytes);
    if (offsetSize_ == 8) unit.u32(0xffffffffu).u64(rest.size());
    else unit.u32(rest.size());
    return unit.raw(rest.bytes).bytes;
  }

 private:
  void path(Writer& header, const std::string& text) const {
    if (lineStrings) header.fixed(offsetSize_, lineStrings->add(text));
    else header.str(text);
  }
  std::uint16_t version_;
  unsigned offsetSize_;
  unsigned addressSize_;
};

// Mach-O symbol-table entry.
struct TableEntry {
  std::string name;
  std::uint8_t type = 0x0f;  // N_SECT | N_EXT
  std::uint8_t section = 1;  // __text
  std::uint64_t value = 0;
};

struct MachOLayout {
  bool is64 = true;
  std::int32_t cputype = 0x0100000c;  // arm64
  std::int32_t cpusubtype = 0;
  std::uint32_t fileType = 0xa;  // MH_DSYM
  std::vector<std::array<std::uint8_t, 16>> uuids;
  std::uint64_t textSegmentAddress = 0x100000000;
  std::uint64_t textAddress = 0x100001000;
  std::uint64_t textSize = 0x1000;
  // __DWARF sections by (16-character) name.
  std::vector<std::pair<std::string, std::vector<std::uint8_t>>> dwarf;
  bool withSymbolTable = true;
  std::vector<TableEntry> symbols;
};

std::vector<std::uint8_t> buildMachO(const MachOLayout& layout);

struct FatSlice {
  std::int32_t cputype;
  std::int32_t cpusubtype;
  std::vector<std::uint8_t> bytes;
};
std::vector<std::uint8_t> buildFat(const std::vector<FatSlice>& slices);

}  // namespace symlift::symbols::dwarf::testing
