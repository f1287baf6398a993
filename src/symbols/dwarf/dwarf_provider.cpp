#include "symbols/dwarf/dwarf_provider.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <algorithm>
#include <future>
#include <optional>

#include "dispatch/thread_pool.h"
#include "macho/architecture_names.h"
#include "support/diagnostics.h"
#include "symbols/dwarf/image_symbols.h"

namespace symlift::symbols::dwarf {

namespace {

// Hands the pages of freed heap memory back to the system, so that what one
// slice needed does not stay counted while the next is read.
void returnFreeMemory() {
#ifdef __GLIBC__
  ::malloc_trim(0);
#endif
}

struct SliceRead {
  ImageSymbols symbols;
  DamageList damage;
};

// The image itself as its only symbol owner, holding the image's symbols.
class ImageOwner final : public SymbolOwner {
 public:
  ImageOwner(const macho::MachOImage& image, ImageSymbols symbols) : image_(image), symbols_(std::move(symbols)) {}

  std::uint64_t baseAddress() const override { return image_.textSegmentAddress; }
  std::optional<std::array<std::uint8_t, 16>> uuidBytes() const override { return image_.uuid; }
  bool isDsym() const override { return image_.fileType == macho::kMachOFileDsym; }
  bool isDylib() const override {
    return image_.fileType == macho::kMachOFileDylib || image_.fileType == macho::kMachOFileBundle;
  }
  bool isDyldSharedCache() const override { return false; }
  bool isObject() const override { return image_.fileType == macho::kMachOFileObject; }

  void forEachTextSymbol(const std::function<void(const SymbolInfo&)>& visitor) const override {
    std::vector<SourceInfo> sources;  // one symbol's, reused
    symbols_.forEachSymbolSources([&](const ImageSymbol& symbol, std::span<const SourceRecord> records) {
      SymbolInfo info;
      info.mangledName = symbol.mangledName;
      info.name = symbol.name;
      info.address = symbol.address;
      info.length = symbol.length;
      sources.clear();
      for (const SourceRecord& record : records) sources.push_back(symbols_.source(record));
      info.sourceInfos = sources;
      visitor(info);
    });
  }

  std::size_t sourceInfoCountHint() const override { return symbols_.sourceCountBound() + symbols_.symbols.size(); }
  std::size_t nameBytesHint() const override {
    std::size_t bytes = 0;
    for (const ImageSymbol& symbol : symbols_.symbols)
      bytes += std::max(symbol.name ? symbol.name->size() : 0, symbol.mangledName ? symbol.mangledName->size() : 0) + 1;
    return bytes;
  }
  std::uint64_t sliceBytes() const override { return image_.bytes.size(); }

 private:
  const macho::MachOImage& image_;
  ImageSymbols symbols_;
};

// One slice, read when it is made; its symbols live as long as it does.
class ImageSymbolicator final : public Symbolicator {
 public:
  ImageSymbolicator(std::shared_ptr<const macho::MachOFile> file, const macho::MachOImage& image,
                    ImageSymbols symbols)
      : file_(std::move(file)), image_(image), owner_(std::make_unique<ImageOwner>(image, std::move(symbols))) {}

  ~ImageSymbolicator() override {
    owner_.reset();
    returnFreeMemory();
  }

  SymbolicationArchitecture architecture() const override {
    return SymbolicationArchitecture{image_.cputype, image_.cpusubtype};
  }
  void forEachSymbolOwner(const std::function<void(const SymbolOwner&)>& visitor) const override { visitor(*owner_); }

 private:
  std::shared_ptr<const macho::MachOFile> file_;  // holds the image
  const macho::MachOImage& image_;
  std::unique_ptr<ImageOwner> owner_;
};

class DwarfSymbolicationProvider final : public SymbolicationProvider {
 public:
  explicit DwarfSymbolicationProvider(const DecodeOptions& options) : options_(options) {}

  void forEachSymbolicatorWithPath(const std::string& path, SymbolFiles& files,
                                   const SymbolicatorVisitor& visitor) const override {
    std::shared_ptr<const macho::MachOFile> file = files.machOFile(path);
    if (!file) return;
    const auto& images = file->images();
    auto read = [&](std::size_t i) {
      const macho::MachOImage& image = images[i];
      DecodeOptions options = options_;
      options.pool = &files.pool();
      // Released pages of the file's private mapping are read from the
      // file again if touched.
      options.bytesDone = [&](std::span<const std::uint8_t> bytes) { file->release(bytes); };
      SliceRead slice;
      slice.symbols = readImageSymbols(image, options, &slice.damage);
      return slice;
    };
    // The next slice is read on the pool while the visitor works on this
    // one: a visitor writing a slice's text on one core leaves the others
    // to the reading. What a slice's reading reports is reported just before
    // its own visit.
    std::future<SliceRead> next;
    struct Drain {  // a visitor that throws leaves no read behind
      std::future<SliceRead>& next;
      ~Drain() {
        if (next.valid()) next.wait();
      }
    } drain{next};
    std::optional<SliceRead> current;
    if (!images.empty()) current = read(0);
    for (std::size_t i = 0; i < images.size(); ++i) {
      const macho::MachOImage& image = images[i];
      const std::string slice = macho::sliceArchitectureName(image.cputype, image.cpusubtype);
      for (support::Diagnostic& diagnostic : current->damage) {
        diagnostic.file = path;
        diagnostic.section = slice + " " + diagnostic.section;
        files.diagnostics().report(diagnostic);
      }
      // What the decoding threads' lists took can go too.
      returnFreeMemory();
      if (i + 1 < images.size()) {
        auto task = std::make_shared<std::packaged_task<SliceRead()>>([&read, i] { return read(i + 1); });
        next = task->get_future();
        files.pool().submit([task] { (*task)(); });
      }
      visitor(std::make_shared<const ImageSymbolicator>(file, image, std::move(current->symbols)));
      current.reset();
      if (next.valid()) current = next.get();
    }
  }

 private:
  DecodeOptions options_;
};

}  // namespace

std::shared_ptr<SymbolicationProvider> makeDwarfSymbolicationProvider(const DecodeOptions& options) {
  return std::make_shared<DwarfSymbolicationProvider>(options);
}

}  // namespace symlift::symbols::dwarf
