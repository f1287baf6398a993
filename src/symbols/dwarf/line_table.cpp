#include "symbols/dwarf/line_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

namespace symlift::symbols::dwarf {

namespace {

// Damaged line programs can push the line register anywhere; it wraps like
// the unsigned register it is instead of overflowing.
std::int64_t wrappingAdd(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

constexpr std::uint8_t kCopy = 1, kAdvancePc = 2, kAdvanceLine = 3, kSetFile = 4, kSetColumn = 5,
                       kNegateStmt = 6, kSetBasicBlock = 7, kConstAddPc = 8, kFixedAdvancePc = 9,
                       kSetPrologueEnd = 10, kSetEpilogueBegin = 11, kSetIsa = 12;
constexpr std::uint8_t kEndSequence = 1, kSetAddress = 2, kDefineFile = 3;
constexpr std::uint64_t kContentPath = 1, kContentDirectoryIndex = 2;

// Entries of a DWARF 5 directory or file table beyond what the header's
// bytes could hold (entries of zero bytes are possible) are not believed.
constexpr std::uint64_t kMaxEmptyEntries = 1024;

struct Prologue {
  std::uint16_t version = 0;
  std::uint8_t minInstructionLength = 1;
  std::int8_t lineBase = 0;
  std::uint8_t lineRange = 0;
  std::uint8_t opcodeBase = 0;
  Bytes standardOpcodeLengths;
  std::vector<std::string_view> directories;
  struct File {
    std::string_view name;
    std::uint64_t directory = 0;
  };
  std::vector<File> files;
};

// A source path longer than any system takes (PATH_MAX is 4096 on Linux,
// 1024 on macOS) names no file: it is left out rather than written, so a
// long compilation folder repeated for thousands of files cannot blow up.
constexpr std::size_t kMaxSourcePathBytes = 4096;
// The paths one line table may make, all together: far more than a real
// table's (its own bytes many times over), bounded for a made-up one.
constexpr std::uint64_t kPathBytesPerTableByte = 64;
constexpr std::uint64_t kPathBytesPerTableFloor = std::uint64_t{1} << 20;

std::optional<std::string> fullPath(const Prologue& prologue, const Prologue::File& file, std::string_view compDir) {
  if (file.name.size() > kMaxSourcePathBytes) return std::nullopt;
  if (!file.name.empty() && file.name[0] == '/') return std::string(file.name);
  std::string_view directory;
  if (prologue.version >= 5) {
    if (file.directory < prologue.directories.size()) directory = prologue.directories[file.directory];
  } else if (file.directory > 0 && file.directory <= prologue.directories.size()) {
    directory = prologue.directories[file.directory - 1];
  }
  std::string path;
  // In DWARF 5, directory 0 is the compilation directory itself.
  const bool underCompDir =
      (prologue.version < 5 || file.directory != 0) && !(directory.size() > 0 && directory[0] == '/');
  if ((underCompDir ? compDir.size() : 0) + directory.size() + file.name.size() + 2 > kMaxSourcePathBytes)
    return std::nullopt;
  if (underCompDir) appendPathComponent(path, compDir);
  appendPathComponent(path, directory);
  appendPathComponent(path, file.name);
  return path;
}

// A DWARF 5 directory or file table: entry formats, then entries.
bool readEntryTable(ByteReader& reader, const UnitInfo& unit, const FormContext& context,
                    const DwarfSections& sections, std::vector<Prologue::File>& entries) {
  std::uint8_t formatCount = reader.u8();
  std::vector<std::pair<std::uint64_t, std::uint64_t>> formats;
  for (std::uint8_t i = 0; i < formatCount && reader.ok(); ++i) {
    std::uint64_t content = reader.uleb();
    std::uint64_t formCode = reader.uleb();
    formats.emplace_back(content, formCode);
  }
  std::uint64_t count = reader.uleb();
  if (!reader.ok()) return false;
  count = std::min<std::uint64_t>(count, reader.remaining() + kMaxEmptyEntries);
  for (std::uint64_t i = 0; i < count; ++i) {
    Prologue::File entry;
    for (const auto& [content, formCode] : formats) {
      FormValue value;
      if (formCode > UINT32_MAX ||
          !readFormValue(reader, static_cast<std::uint32_t>(formCode), 0, context, value))
        return false;
      if (content == kContentPath) {
        std::string_view text;
        if (resolveString(value, sections, context, unit.bases, text)) entry.name = text;
      } else if (content == kContentDirectoryIndex && classOf(value.form) == FormClass::kConstant) {
        entry.directory = value.number;
      }
    }
    entries.push_back(entry);
  }
  return reader.ok();
}

bool readPrologue(ByteReader& reader, const UnitInfo& unit, const DwarfSections& sections, std::uint8_t offsetSize,
                  Prologue& prologue) {
  prologue.version = reader.u16();
  if (!reader.ok() || prologue.version < 2 || prologue.version > 5) return false;
  FormContext context = unit.context;
  context.offsetSize = offsetSize;
  context.version = prologue.version;
  if (prologue.version >= 5) {
    context.addressSize = reader.u8();
    reader.u8();  // segment selector size
  }
  std::uint64_t headerLength = reader.fixed(offsetSize);
  if (!reader.ok() || headerLength > reader.remaining()) return false;
  std::size_t programStart = reader.offset() + static_cast<std::size_t>(headerLength);
  ByteReader header(reader.data().first(programStart), reader.offset());
  prologue.minInstructionLength = header.u8();
  if (prologue.version >= 4) header.u8();  // maximum operations per instruction
  header.u8();                             // default_is_stmt
  prologue.lineBase = static_cast<std::int8_t>(header.u8());
  prologue.lineRange = header.u8();
  prologue.opcodeBase = header.u8();
  if (prologue.opcodeBase > 0) prologue.standardOpcodeLengths = header.bytes(prologue.opcodeBase - 1u);
  if (!header.ok()) return false;
  if (prologue.version >= 5) {
    std::vector<Prologue::File> directories;
    if (!readEntryTable(header, unit, context, sections, directories)) return false;
    for (const auto& directory : directories) prologue.directories.push_back(directory.name);
    if (!readEntryTable(header, unit, context, sections, prologue.files)) return false;
  } else {
    while (true) {
      std::string_view directory = header.cstr();
      if (!header.ok()) return false;
      if (directory.empty()) break;
      prologue.directories.push_back(directory);
    }
    while (true) {
      Prologue::File file;
      file.name = header.cstr();
      if (!header.ok()) return false;
      if (file.name.empty()) break;
      file.directory = header.uleb();
      header.uleb();  // modification time
      header.uleb();  // length
      if (!header.ok()) return false;
      prologue.files.push_back(file);
    }
  }
  reader.seek(programStart);
  return true;
}

}  // namespace

void appendPathComponent(std::string& path, std::string_view component) {
  if (component.empty()) return;
  if (!path.empty() && path.back() == '/') {
    std::size_t start = component.find_first_not_of('/');
    if (start == std::string_view::npos) return;
    path.append(component.substr(start));
    return;
  }
  if (!path.empty() && component[0] != '/') path.push_back('/');
  path.append(component);
}

std::optional<std::uint64_t> readLineTable(const DwarfSections& sections, const UnitInfo& unit,
                                           std::uint64_t offset, LineTables& out, std::deque<std::string>& strings,
                                           DamageList* damage) {
  if (offset >= sections.line.size()) {
    noteDamage(damage, "__debug_info", unit.offset,
               fmt::format("the line table of a unit (its offset {:#x} lies past the end of __debug_line)", offset));
    return std::nullopt;
  }
  ByteReader reader(sections.line, static_cast<std::size_t>(offset));
  std::uint8_t offsetSize = 4;
  std::uint64_t length = reader.u32();
  if (length == 0xffffffffu) {
    offsetSize = 8;
    length = reader.u64();
  } else if (length >= 0xfffffff0u) {
    noteDamage(damage, "__debug_line", offset, fmt::format("a line table (reserved unit length {:#x})", length));
    return std::nullopt;
  }
  if (!reader.ok() || length > reader.remaining()) {
    noteDamage(damage, "__debug_line", offset, "a line table running past the end of the section");
    return std::nullopt;
  }
  const std::size_t tableEnd = reader.offset() + static_cast<std::size_t>(length);
  ByteReader program(sections.line.first(tableEnd), reader.offset());
  Prologue prologue;
  if (!readPrologue(program, unit, sections, offsetSize, prologue)) {
    noteDamage(damage, "__debug_line", offset, "a line table whose header cannot be read");
    return std::nullopt;
  }

  // File-table entry → index into out.paths, made when first used; an entry
  // whose path is left out is marked so and costs nothing more.
  constexpr std::uint32_t kLeftOut = kNoFile - 1;
  std::vector<std::uint32_t> fileIndex(prologue.files.size(), kNoFile);
  const std::uint64_t pathBudget =
      std::max(kPathBytesPerTableFloor, kPathBytesPerTableByte * (tableEnd - static_cast<std::size_t>(offset)));
  std::uint64_t pathBytes = 0;
  bool tooLongNoted = false, overBudgetNoted = false;
  auto pathIndex = [&](std::uint64_t file) -> std::uint32_t {
    // DWARF 5 numbers files from 0, earlier versions from 1.
    std::uint64_t entry = prologue.version >= 5 ? file : file - 1;
    if ((prologue.version < 5 && file == 0) || entry >= prologue.files.size()) return kNoFile;
    if (fileIndex[entry] == kLeftOut) return kNoFile;
    if (fileIndex[entry] == kNoFile) {
      std::optional<std::string> path = fullPath(prologue, prologue.files[entry], unit.compDir);
      if (!path || pathBytes + path->size() > pathBudget) {
        if (!path && !std::exchange(tooLongNoted, true))
          noteDamage(damage, "__debug_line", offset, "source paths longer than 4096 bytes");
        if (path && !std::exchange(overBudgetNoted, true))
          noteDamage(damage, "__debug_line", offset,
                     fmt::format("source paths beyond {} bytes in one line table", pathBudget));
        fileIndex[entry] = kLeftOut;
        return kNoFile;
      }
      pathBytes += path->size();
      fileIndex[entry] = static_cast<std::uint32_t>(out.paths.size());
      out.paths.push_back(strings.emplace_back(std::move(*path)));
    }
    return fileIndex[entry];
  };

  const std::uint8_t addressSize = unit.context.addressSize;
  std::uint64_t address = 0;
  std::uint64_t file = 1;
  std::int64_t line = 1;
  std::size_t sequenceStart = out.rows.size();
  auto emitRow = [&]() {
    LineRow row;
    row.address = address;
    row.file = pathIndex(file);
    row.line = line < 0 ? 0 : static_cast<std::uint32_t>(std::min<std::int64_t>(line, UINT32_MAX));
    out.rows.push_back(row);
  };
  auto endSequence = [&]() {
    std::size_t count = out.rows.size() - sequenceStart;
    if (count > 0 && address > out.rows[sequenceStart].address)
      out.sequences.push_back({out.rows[sequenceStart].address, address, sequenceStart, count});
    else
      out.rows.resize(sequenceStart);
    sequenceStart = out.rows.size();
    address = 0;
    file = 1;
    line = 1;
  };
  auto advance = [&](std::uint64_t operations) { address += operations * prologue.minInstructionLength; };

  // What each special opcode advances, worked out once per table rather
  // than divided out on every row.
  struct Special {
    std::uint8_t operations = 0;
    std::int16_t line = 0;
  };
  std::array<Special, 256> specials{};
  if (prologue.lineRange != 0) {
    for (unsigned opcode = prologue.opcodeBase; opcode < 256; ++opcode) {
      const unsigned adjusted = opcode - prologue.opcodeBase;
      specials[opcode] = {static_cast<std::uint8_t>(adjusted / prologue.lineRange),
                          static_cast<std::int16_t>(prologue.lineBase + static_cast<int>(adjusted % prologue.lineRange))};
    }
  }

  // Every opcode consumes at least one byte, so the loop ends.
  std::size_t opcodeOffset = program.offset();
  auto cutShort = [&] {
    noteDamage(damage, "__debug_line", opcodeOffset, "the rest of a line program, cut short inside an opcode");
  };
  while (program.remaining() > 0) {
    opcodeOffset = program.offset();
    std::uint8_t opcode = program.u8();
    if (opcode == 0) {
      std::uint64_t size = program.uleb();
      if (!program.ok() || size > program.remaining()) {
        cutShort();
        break;
      }
      std::size_t end = program.offset() + static_cast<std::size_t>(size);
      if (size > 0) {
        std::uint8_t subOpcode = program.u8();
        if (subOpcode == kEndSequence) {
          endSequence();
        } else if (subOpcode == kSetAddress) {
          std::size_t width = static_cast<std::size_t>(size - 1);
          address = (width >= 1 && width <= 8) ? program.fixed(static_cast<unsigned>(width))
                                               : program.fixed(addressSize);
        } else if (subOpcode == kDefineFile) {
          Prologue::File defined;
          defined.name = program.cstr();
          defined.directory = program.uleb();
          if (program.ok()) {
            prologue.files.push_back(defined);
            fileIndex.push_back(kNoFile);
          }
        }
      }
      program = ByteReader(program.data(), end);
    } else if (opcode < prologue.opcodeBase) {
      switch (opcode) {
        case kCopy: emitRow(); break;
        case kAdvancePc: advance(program.uleb()); break;
        case kAdvanceLine: line = wrappingAdd(line, program.sleb()); break;
        case kSetFile: file = program.uleb(); break;
        case kConstAddPc:
          if (prologue.lineRange != 0) advance((255u - prologue.opcodeBase) / prologue.lineRange);
          break;
        case kFixedAdvancePc: address += program.u16(); break;
        case kSetColumn: case kSetIsa: program.uleb(); break;
        case kNegateStmt: case kSetBasicBlock: case kSetPrologueEnd: case kSetEpilogueBegin: break;
        default:
          // An opcode this reader does not know: skip its operands.
          for (std::uint8_t i = 0; i < prologue.standardOpcodeLengths[opcode - 1u]; ++i) program.uleb();
          break;
      }
    } else {
      if (prologue.lineRange != 0) {
        advance(specials[opcode].operations);
        line = wrappingAdd(line, specials[opcode].line);
      }
      emitRow();
    }
    if (!program.ok()) {
      cutShort();
      break;
    }
  }
  // An unterminated sequence is incomplete and dropped.
  if (out.rows.size() > sequenceStart)
    noteDamage(damage, "__debug_line", offset,
               fmt::format("{} rows of a line table's last sequence, which has no end", out.rows.size() - sequenceStart));
  out.rows.resize(sequenceStart);
  return tableEnd;
}

}  // namespace symlift::symbols::dwarf
