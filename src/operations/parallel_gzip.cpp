#include "operations/parallel_gzip.h"

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

namespace symlift::operations {

namespace {

// Bytes that deflate overwrites need no zeroing first: a vector whose
// elements are left uninitialised when it grows.
template <typename T>
struct UninitialisedAllocator : std::allocator<T> {
  template <typename U>
  struct rebind {
    using other = UninitialisedAllocator<U>;
  };
  template <typename U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};
using Buffer = std::vector<std::uint8_t, UninitialisedAllocator<std::uint8_t>>;

struct CompressorDeleter {
  void operator()(libdeflate_compressor* compressor) const { libdeflate_free_compressor(compressor); }
};

constexpr std::size_t kChunksPerThread = 16;
constexpr std::size_t kSmallestChunk = std::size_t{1} << 20;

struct Chunk {
  std::span<const std::uint8_t> input;
  bool last = false;
  Buffer output;
  std::uint32_t crc = 0;
  bool ok = false;
};

// Where a complete raw deflate stream's final block begins and where the
// stream ends, in bits from its first byte.
struct StreamBounds {
  std::uint64_t finalBlock = 0;
  std::uint64_t end = 0;
};

// The stream's bits, least significant first, as deflate packs them. Past
// the end it reads zeros and counts them: a caller checks exhausted().
class BitReader {
 public:
  explicit BitReader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  // At least 56 bits in hand afterwards.
  void refill() {
    if (next_ + 8 <= bytes_.size()) {
      std::uint64_t word;
      std::memcpy(&word, bytes_.data() + next_, 8);  // the byte order of x86 and arm64 alike
      held_ |= word << count_;
      next_ += (63 - count_) >> 3;
      count_ |= 56;
      return;
    }
    while (count_ <= 56) {
      const std::uint64_t byte = next_ < bytes_.size() ? bytes_[next_] : 0;
      held_ |= byte << count_;
      ++next_;
      count_ += 8;
    }
  }
  // Up to 56 bits, after a refill.
  std::uint32_t peek(unsigned n) const { return static_cast<std::uint32_t>(held_ & ((std::uint64_t{1} << n) - 1)); }
  void skip(unsigned n) {
    held_ >>= n;
    count_ -= n;
  }
  std::uint32_t take(unsigned n) {
    refill();
    const std::uint32_t value = peek(n);
    skip(n);
    return value;
  }
  // Bits in hand.
  unsigned held() const { return count_; }
  // Bits taken so far.
  std::uint64_t position() const { return std::uint64_t{next_} * 8 - count_; }
  // Starts again at a byte boundary.
  void seekToByte(std::size_t byte) {
    next_ = byte;
    held_ = 0;
    count_ = 0;
  }
  // Whether more bits were taken than the stream has.
  bool exhausted() const { return position() > std::uint64_t{bytes_.size()} * 8; }
  std::span<const std::uint8_t> bytes() const { return bytes_; }

 private:
  std::span<const std::uint8_t> bytes_;
  std::size_t next_ = 0;  // the next byte to load
  std::uint64_t held_ = 0;
  unsigned count_ = 0;
};

// A canonical Huffman code: codes of up to kFastBits bits are looked up in
// one step, longer ones are decoded bit by bit (as zlib's puff does).
class HuffmanCode {
 public:
  static constexpr unsigned kMaxBits = 15;
  static constexpr unsigned kFastBits = 12;

  // False for lengths no code can have (more codes than bits allow).
  bool build(const std::uint8_t* lengths, unsigned symbolCount) {
    counts_.fill(0);
    for (unsigned s = 0; s < symbolCount; ++s) ++counts_[lengths[s]];
    counts_[0] = 0;
    int left = 1;
    for (unsigned len = 1; len <= kMaxBits; ++len) {
      left = left * 2 - counts_[len];
      if (left < 0) return false;
    }
    std::array<std::uint16_t, kMaxBits + 1> offsets{};
    for (unsigned len = 1; len < kMaxBits; ++len) offsets[len + 1] = offsets[len] + counts_[len];
    for (unsigned s = 0; s < symbolCount; ++s)
      if (lengths[s] != 0) symbols_[offsets[lengths[s]]++] = static_cast<std::uint16_t>(s);
    fast_.fill(0);
    unsigned code = 0, index = 0;
    for (unsigned len = 1; len <= kFastBits; ++len) {
      for (unsigned i = 0; i < counts_[len]; ++i, ++code, ++index) {
        unsigned reversed = 0;
        for (unsigned b = 0; b < len; ++b) reversed |= ((code >> b) & 1u) << (len - 1 - b);
        const auto entry = static_cast<std::uint16_t>(symbols_[index] << 4 | len);
        for (unsigned at = reversed; at < (1u << kFastBits); at += 1u << len) fast_[at] = entry;
      }
      code <<= 1;
    }
    return true;
  }

  // What the next kFastBits bits start with: symbol << 4 | code length, or 0
  // for a code longer than that (or bits no code begins).
  std::uint16_t fastEntry(std::uint32_t bits) const { return fast_[bits]; }

  // The next symbol, or -1 for a code that has none; the reader holds at
  // least kMaxBits bits.
  int decode(BitReader& in) const {
    const std::uint16_t entry = fast_[in.peek(kFastBits)];
    if (entry != 0) {
      in.skip(entry & 15u);
      return entry >> 4;
    }
    int code = 0, first = 0, index = 0;
    for (unsigned len = 1; len <= kMaxBits; ++len) {
      code |= static_cast<int>(in.peek(1));
      in.skip(1);
      const int count = counts_[len];
      if (code - count < first) return symbols_[static_cast<std::size_t>(index + (code - first))];
      index += count;
      first = (first + count) << 1;
      code <<= 1;
    }
    return -1;
  }

 private:
  std::array<std::uint16_t, kMaxBits + 1> counts_{};
  std::array<std::uint16_t, 288> symbols_{};
  std::array<std::uint16_t, std::size_t{1} << kFastBits> fast_{};  // symbol << 4 | length; 0: a longer code
};

constexpr std::uint8_t kLengthExtraBits[29] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                               2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
constexpr std::uint8_t kDistanceExtraBits[30] = {0, 0, 0, 0, 1, 1, 2, 2,  3,  3,  4,  4,  5,  5,  6,
                                                 6, 7, 7, 8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13};

// What a block's codes take in the stream, looked up by its next
// HuffmanCode::kFastBits bits: the bits to step over (a length's and a
// distance's extra bits included, two literals at once where both codes fit)
// and what was stepped over. Longer codes, and symbols no stream may hold, are
// left to HuffmanCode::decode.
class SkipTables {
 public:
  enum Kind : std::uint16_t { kLiterals, kLength, kDistance, kEnd, kSlow };
  static constexpr unsigned kBits = HuffmanCode::kFastBits;

  void build(const HuffmanCode& literals, const HuffmanCode& distances) {
    for (std::uint32_t bits = 0; bits < (1u << kBits); ++bits) {
      const std::uint16_t entry = literals.fastEntry(bits);
      const unsigned symbol = entry >> 4, length = entry & 15u;
      if (entry == 0 || symbol > 285) {
        literal_[bits] = make(kSlow, 0);
      } else if (symbol < 256) {
        const std::uint16_t next = literals.fastEntry(bits >> length);
        const unsigned nextLength = next & 15u;
        const bool pair = next != 0 && (next >> 4) < 256 && nextLength <= kBits - length;
        literal_[bits] = make(kLiterals, length + (pair ? nextLength : 0));
      } else if (symbol == 256) {
        literal_[bits] = make(kEnd, length);
      } else {
        literal_[bits] = make(kLength, length + kLengthExtraBits[symbol - 257]);
      }
      const std::uint16_t far = distances.fastEntry(bits);
      distance_[bits] = far == 0 || (far >> 4) >= 30 ? make(kSlow, 0)
                                                      : make(kDistance, (far & 15u) + kDistanceExtraBits[far >> 4]);
    }
  }
  std::uint16_t literal(std::uint32_t bits) const { return literal_[bits]; }
  std::uint16_t distance(std::uint32_t bits) const { return distance_[bits]; }
  static Kind kindOf(std::uint16_t entry) { return static_cast<Kind>(entry >> 8); }
  static unsigned bitsOf(std::uint16_t entry) { return entry & 0xffu; }

 private:
  static std::uint16_t make(Kind kind, unsigned bits) { return static_cast<std::uint16_t>(kind << 8 | bits); }
  std::array<std::uint16_t, std::size_t{1} << kBits> literal_{};
  std::array<std::uint16_t, std::size_t{1} << kBits> distance_{};
};

// Reads the codes of a dynamic block's header.
bool readDynamicCodes(BitReader& in, HuffmanCode& literals, HuffmanCode& distances) {
  static constexpr std::uint8_t kOrder[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
  const unsigned literalCount = in.take(5) + 257;
  const unsigned distanceCount = in.take(5) + 1;
  const unsigned lengthCodeCount = in.take(4) + 4;
  if (literalCount > 286 || distanceCount > 30) return false;
  std::uint8_t lengths[286 + 30] = {};
  for (unsigned i = 0; i < lengthCodeCount; ++i) lengths[kOrder[i]] = static_cast<std::uint8_t>(in.take(3));
  HuffmanCode lengthCode;
  if (!lengthCode.build(lengths, 19)) return false;
  std::fill(std::begin(lengths), std::end(lengths), 0);
  for (unsigned index = 0; index < literalCount + distanceCount;) {
    in.refill();
    const int symbol = lengthCode.decode(in);
    if (symbol < 0) return false;
    if (symbol < 16) {
      lengths[index++] = static_cast<std::uint8_t>(symbol);
      continue;
    }
    std::uint8_t value = 0;
    unsigned repeat;
    if (symbol == 16) {
      if (index == 0) return false;
      value = lengths[index - 1];
      repeat = 3 + in.take(2);
    } else if (symbol == 17) {
      repeat = 3 + in.take(3);
    } else {
      repeat = 11 + in.take(7);
    }
    if (index + repeat > literalCount + distanceCount) return false;
    while (repeat-- > 0) lengths[index++] = value;
  }
  if (in.exhausted() || lengths[256] == 0) return false;
  return literals.build(lengths, literalCount) && distances.build(lengths + literalCount, distanceCount);
}

// Walks the blocks of a raw deflate stream, decoding its codes without
// producing the output, to where the final block begins and the stream ends.
std::optional<StreamBounds> boundsOf(const Buffer& stream) {
  BitReader in(std::span<const std::uint8_t>(stream.data(), stream.size()));
  HuffmanCode literals, distances;
  SkipTables skip;
  for (;;) {
    const std::uint64_t blockStart = in.position();
    const bool final = in.take(1) != 0;
    const unsigned type = in.take(2);
    if (type == 0) {
      const std::size_t at = static_cast<std::size_t>((in.position() + 7) / 8);
      if (at + 4 > stream.size()) return std::nullopt;
      const unsigned length = stream[at] | stream[at + 1] << 8;
      const unsigned complement = stream[at + 2] | stream[at + 3] << 8;
      if ((length ^ 0xffffu) != complement || at + 4 + length > stream.size()) return std::nullopt;
      in.seekToByte(at + 4 + length);
    } else {
      if (type == 1) {
        std::uint8_t lengths[288 + 30];
        std::fill(lengths, lengths + 144, 8);
        std::fill(lengths + 144, lengths + 256, 9);
        std::fill(lengths + 256, lengths + 280, 7);
        std::fill(lengths + 280, lengths + 288, 8);
        std::fill(lengths + 288, lengths + 318, 5);
        literals.build(lengths, 288);
        distances.build(lengths + 288, 30);
      } else if (type != 2 || !readDynamicCodes(in, literals, distances)) {
        return std::nullopt;
      }
      skip.build(literals, distances);
      // 48 bits are enough for the longest length with its extra bits and
      // the longest distance with its own; a refill leaves at least 56.
      for (;;) {
        if (in.held() < 48) {
          in.refill();
          if (in.exhausted()) return std::nullopt;
        }
        const std::uint16_t entry = skip.literal(in.peek(SkipTables::kBits));
        const SkipTables::Kind kind = SkipTables::kindOf(entry);
        in.skip(SkipTables::bitsOf(entry));
        if (kind == SkipTables::kLiterals) continue;
        if (kind == SkipTables::kEnd) break;
        if (kind == SkipTables::kSlow) {
          const int symbol = literals.decode(in);
          if (static_cast<unsigned>(symbol) < 256) continue;
          if (symbol == 256) break;
          if (symbol < 257 || symbol > 285) return std::nullopt;
          in.skip(kLengthExtraBits[symbol - 257]);
        }
        const std::uint16_t far = skip.distance(in.peek(SkipTables::kBits));
        if (SkipTables::kindOf(far) != SkipTables::kSlow) {
          in.skip(SkipTables::bitsOf(far));
          continue;
        }
        const int distance = distances.decode(in);
        if (static_cast<unsigned>(distance) >= 30) return std::nullopt;
        in.skip(kDistanceExtraBits[distance]);
      }
    }
    if (in.exhausted()) return std::nullopt;
    if (final) return StreamBounds{blockStart, in.position()};
  }
}

// The chunk's raw deflate stream, made to continue into the next chunk's:
// its final block turned into an ordinary one and followed by an empty
// stored block, which ends on a byte boundary.
bool openUp(Buffer& stream) {
  const auto bounds = boundsOf(stream);
  if (!bounds || bounds->end > std::uint64_t{stream.size()} * 8) return false;
  stream[bounds->finalBlock / 8] &= static_cast<std::uint8_t>(~(1u << (bounds->finalBlock % 8)));
  // The stored block's three header bits (not final, type 0) are zero, as
  // is the padding after them to the byte boundary.
  const std::uint64_t headerEnd = bounds->end + 3;
  const std::size_t bytes = static_cast<std::size_t>((headerEnd + 7) / 8);
  stream.resize(bytes, 0);
  const unsigned used = static_cast<unsigned>(bounds->end % 8);
  if (used != 0) stream[bounds->end / 8] &= static_cast<std::uint8_t>((1u << used) - 1);
  for (std::size_t i = static_cast<std::size_t>(bounds->end / 8) + (used != 0); i < bytes; ++i) stream[i] = 0;
  for (std::uint8_t byte : {0x00, 0x00, 0xFF, 0xFF}) stream.push_back(byte);
  return true;
}

void deflateChunk(Chunk& chunk, int level) {
  std::unique_ptr<libdeflate_compressor, CompressorDeleter> compressor(libdeflate_alloc_compressor(level));
  if (!compressor) return;
  chunk.crc = static_cast<std::uint32_t>(libdeflate_crc32(0, chunk.input.data(), chunk.input.size()));
  chunk.output.resize(libdeflate_deflate_compress_bound(compressor.get(), chunk.input.size()));
  const std::size_t produced = libdeflate_deflate_compress(compressor.get(), chunk.input.data(), chunk.input.size(),
                                                           chunk.output.data(), chunk.output.size());
  if (produced == 0) return;
  chunk.output.resize(produced);
  chunk.ok = chunk.last || openUp(chunk.output);
}

void appendLittleEndian32(std::vector<std::uint8_t>& out, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

}  // namespace

std::optional<std::vector<std::uint8_t>> gzipInChunks(dispatch::ThreadPool& pool, std::span<const std::uint8_t> data,
                                                      const GzipOptions& options) {
  // Several chunks per thread, so that the last ones to finish leave little
  // time with a core idle; none so small that its lost history costs much.
  const unsigned threads = options.maxThreads ? options.maxThreads : dispatch::ThreadPool::hardwareConcurrency();
  const std::size_t balanced = std::max(data.size() / (std::size_t{threads} * kChunksPerThread), kSmallestChunk);
  const std::size_t chunkSize = std::max<std::size_t>(std::min(options.chunkSize, balanced), 1);
  const std::size_t chunkCount = std::max<std::size_t>((data.size() + chunkSize - 1) / chunkSize, 1);
  std::vector<Chunk> chunks(chunkCount);
  for (std::size_t i = 0; i < chunkCount; ++i) {
    const std::size_t begin = std::min(i * chunkSize, data.size());
    chunks[i].input = data.subspan(begin, std::min(chunkSize, data.size() - begin));
    chunks[i].last = i + 1 == chunkCount;
  }
  pool.parallelFor(chunkCount, [&](std::size_t i) { deflateChunk(chunks[i], options.level); }, options.maxThreads);

  // Header: deflate, no flags, no time stamp, no extra flags, OS Unix.
  std::vector<std::uint8_t> out{0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 3};
  std::size_t total = out.size() + 8;
  for (const Chunk& chunk : chunks) {
    if (!chunk.ok) return std::nullopt;
    total += chunk.output.size();
  }
  out.reserve(total);
  uLong crc = crc32(0L, Z_NULL, 0);
  for (Chunk& chunk : chunks) {
    out.insert(out.end(), chunk.output.begin(), chunk.output.end());
    crc = crc32_combine(crc, chunk.crc, static_cast<z_off_t>(chunk.input.size()));
    Buffer().swap(chunk.output);
  }
  appendLittleEndian32(out, static_cast<std::uint32_t>(crc));
  appendLittleEndian32(out, static_cast<std::uint32_t>(data.size() & 0xffffffffu));
  return out;
}

}  // namespace symlift::operations
