#!/usr/bin/env python3
"""Writes the C++, C and Objective-C sources of a synthetic app whose debug
information looks like a large real one: many translation units, deep
namespaces, class templates instantiated for several types, lambdas, virtual
methods, static helpers that the optimiser inlines, static functions, and a
share of plain C and Objective-C files.

    gen_sources.py OUT_DIR MODULES

Every C++ module also includes four of MODULES shared headers whose inline
helpers it calls, so line tables name header files too. The output depends
only on MODULES (a fixed random seed per module), so the same count always
gives the same program. Prints the list of source files (not the headers).
"""

import os
import random
import sys

WORDS = [
    "network", "transport", "session", "payment", "checkout", "catalog", "inventory",
    "render", "layout", "texture", "analytics", "telemetry", "storage", "cache",
    "persistence", "sync", "identity", "keychain", "messaging", "timeline", "feed",
    "media", "playback", "download", "upload", "location", "geocoding", "search",
    "ranking", "recommendation", "onboarding", "settings", "notification", "scheduler",
]
NOUNS = [
    "Controller", "Coordinator", "Manager", "Repository", "Service", "Presenter",
    "Reducer", "Validator", "Serializer", "Decoder", "Encoder", "Pipeline", "Store",
]
VERBS = [
    "process", "resolve", "transform", "validate", "encode", "decode", "merge",
    "dispatch", "schedule", "reconcile", "normalize", "compact", "refresh",
]
TYPES = ["int", "long", "double", "float", "unsigned", "short"]


def header_count(modules):
    return max(1, modules)


def header_path(h):
    rng = random.Random(h * 31337 + 11)
    return f"include/{rng.choice(WORDS)}/{rng.choice(NOUNS)}{h}.h"


def header(h):
    rng = random.Random(h * 31337 + 11)
    out = [f"// Generated shared header {h}.", "#pragma once", "", f"namespace app {{ namespace core {{ namespace h{h} {{", ""]
    out += [
        "inline int hashCombine(int seed, int value) {",
        f"  seed ^= value + {rng.randint(1, 0x7fff)} + (seed << 6) + (seed >> 2);",
        "  return seed;",
        "}",
        "",
        "template <typename T>",
        "inline T clampAdd(T a, T b, T limit) {",
        "  T sum = a + b;",
        "  if (sum > limit) return limit;",
        "  if (sum < -limit) return -limit;",
        "  return sum;",
        "}",
        "",
        "template <typename T>",
        "struct Accumulator {",
        "  T total{};",
        "  int count = 0;",
        "  void add(T value) { total += value; ++count; }",
        "  T mean() const { return count ? total / count : T{}; }",
        "};",
        "",
        f"}} }} }}  // namespace app::core::h{h}",
        "",
    ]
    return "\n".join(out)


def module_namespace(rng, index):
    parts = [rng.choice(WORDS) for _ in range(rng.randint(2, 4))]
    return ["app"] + parts + [f"m{index}"]


def cpp_module(index, headers):
    rng = random.Random(index * 7919 + 1)
    ns = module_namespace(rng, index)
    used = sorted(random.Random(index * 65537 + 7).sample(range(headers), min(4, headers)))
    out = [f"// Generated module {index}.", "typedef unsigned long size_t;"]
    out += [f'#include "{header_path(h)}"' for h in used]
    out.append("")
    out += [f"namespace {n} {{" for n in ns]
    out.append("")

    # Helpers small enough to be inlined into every caller.
    for h in range(4):
        out += [
            f"static inline int mix{h}(int a, int b) {{",
            f"  int r = a * {rng.randint(3, 97)} + (b >> {h + 1});",
            f"  if (r & {1 << h}) r ^= b;",
            "  return r;",
            "}",
            "",
        ]
    out += [
        "__attribute__((always_inline)) static inline long fold(long acc, int v) {",
        "  acc = acc * 31 + v;",
        "  return acc ^ (acc >> 7);",
        "}",
        "",
        "struct Record {",
        "  int id;",
        "  double weight;",
        "  long stamp;",
        "  bool operator<(const Record& o) const { return id < o.id; }",
        "  Record operator+(const Record& o) const { return Record{id + o.id, weight + o.weight, stamp}; }",
        "  Record& operator+=(const Record& o) { id += o.id; weight += o.weight; return *this; }",
        "};",
        "",
        "template <typename T, int N>",
        "class RingBuffer {",
        " public:",
        "  bool push(const T& value);",
        "  bool pop(T& out);",
        "  T total() const;",
        "  template <typename F> int countIf(F predicate) const;",
        "  template <typename F> void forEach(F f) const;",
        " private:",
        "  T items_[N];",
        "  int head_ = 0;",
        "  int size_ = 0;",
        "};",
        "",
        "template <typename T, int N>",
        "bool RingBuffer<T, N>::push(const T& value) {",
        "  if (size_ == N) return false;",
        "  items_[(head_ + size_) % N] = value;",
        "  ++size_;",
        "  return true;",
        "}",
        "",
        "template <typename T, int N>",
        "bool RingBuffer<T, N>::pop(T& out) {",
        "  if (size_ == 0) return false;",
        "  out = items_[head_];",
        "  head_ = (head_ + 1) % N;",
        "  --size_;",
        "  return true;",
        "}",
        "",
        "template <typename T, int N>",
        "T RingBuffer<T, N>::total() const {",
        "  T sum{};",
        "  for (int i = 0; i < size_; ++i) sum += items_[(head_ + i) % N];",
        "  return sum;",
        "}",
        "",
        "template <typename T, int N>",
        "template <typename F>",
        "int RingBuffer<T, N>::countIf(F predicate) const {",
        "  int n = 0;",
        "  for (int i = 0; i < size_; ++i)",
        "    if (predicate(items_[(head_ + i) % N])) ++n;",
        "  return n;",
        "}",
        "",
        "template <typename T, int N>",
        "template <typename F>",
        "void RingBuffer<T, N>::forEach(F f) const {",
        "  for (int i = 0; i < size_; ++i) f(items_[(head_ + i) % N]);",
        "}",
        "",
        "template <typename K, typename V>",
        "struct Pair {",
        "  K key;",
        "  V value;",
        "  bool matches(const K& k) const { return !(key < k) && !(k < key); }",
        "};",
        "",
        "template <typename K, typename V, int N>",
        "class FlatMap {",
        " public:",
        "  V* find(const K& key) {",
        "    for (int i = 0; i < count_; ++i)",
        "      if (entries_[i].matches(key)) return &entries_[i].value;",
        "    return nullptr;",
        "  }",
        "  bool insert(const K& key, const V& value) {",
        "    if (V* existing = find(key)) { *existing = value; return true; }",
        "    if (count_ == N) return false;",
        "    entries_[count_++] = Pair<K, V>{key, value};",
        "    return true;",
        "  }",
        "  int size() const { return count_; }",
        " private:",
        "  Pair<K, V> entries_[N];",
        "  int count_ = 0;",
        "};",
        "",
    ]

    # Static functions (internal linkage, kept out of line).
    statics = []
    for s in range(rng.randint(4, 8)):
        name = f"{rng.choice(VERBS)}Chunk{s}"
        statics.append(name)
        out += [
            f"__attribute__((noinline)) static long {name}(const int* data, int count, int seed) {{",
            "  long acc = seed;",
            "  for (int i = 0; i < count; ++i) {",
            f"    int v = mix{s % 4}(data[i], seed + i);",
            "    if (v % 3 == 0) {",
            "      acc = fold(acc, v);",
            f"    }} else if (v % 5 == {s % 5}) {{",
            f"      acc -= mix{(s + 1) % 4}(v, i);",
            "    } else {",
            "      acc += v;",
            "    }",
            "  }",
            "  return acc;",
            "}",
            "",
        ]

    # Classes with virtual methods whose bodies use the templates and lambdas.
    classes = []
    for c in range(rng.randint(3, 6)):
        cname = f"{rng.choice(WORDS).capitalize()}{rng.choice(NOUNS)}{c}"
        t = rng.choice(TYPES)
        n = rng.choice([4, 8, 16, 32])
        verbs = rng.sample(VERBS, 4)
        classes.append((cname, verbs[0]))
        out += [
            f"class {cname} {{",
            " public:",
            f"  virtual ~{cname}();",
        ]
        out += [f"  virtual long {v}(int request, {t} scale);" for v in verbs]
        out += [
            f"  Record summarize(const Record* records, int count) const;",
            " private:",
            f"  RingBuffer<{t}, {n}> buffer_;",
            f"  FlatMap<int, {t}, {n}> index_;",
            "  long generation_ = 0;",
            "};",
            "",
            f"{cname}::~{cname}() {{ generation_ = -1; }}",
            "",
        ]
        for vi, v in enumerate(verbs):
            body = [
                f"long {cname}::{v}(int request, {t} scale) {{",
                f"  buffer_.push(({t})(request * scale));",
                f"  index_.insert(request, ({t})scale);",
                f"  int hits = buffer_.countIf([request](const {t}& x) {{ return x > ({t})request; }});",
                "  long acc = generation_;",
                f"  buffer_.forEach([&acc, scale](const {t}& x) {{ acc = fold(acc, (int)(x * scale)); }});",
                f"  acc = ::app::core::h{used[vi % len(used)]}::hashCombine((int)acc, hits);",
                f"  ::app::core::h{used[(vi + 1) % len(used)]}::Accumulator<{t}> stats;",
                f"  stats.add(({t})hits);",
                f"  acc += (long)::app::core::h{used[0]}::clampAdd<{t}>(stats.mean(), scale, ({t})1000);",
            ]
            if vi % 2 == 0:
                st = statics[vi % len(statics)]
                body += [
                    "  int local[8];",
                    f"  for (int i = 0; i < 8; ++i) local[i] = mix{vi % 4}(request, i);",
                    f"  acc += {st}(local, 8, hits);",
                ]
            else:
                body += [
                    f"  if ({t}* found = index_.find(request)) acc += (long)*found;",
                    f"  switch (request & 3) {{",
                    "    case 0: acc += hits; break;",
                    f"    case 1: acc -= mix{vi % 4}(hits, request); break;",
                    "    case 2: acc ^= generation_; break;",
                    "    default: acc = fold(acc, hits); break;",
                    "  }",
                ]
            body += ["  generation_ = acc;", "  return acc;", "}", ""]
            out += body
        out += [
            f"Record {cname}::summarize(const Record* records, int count) const {{",
            "  RingBuffer<Record, 8> window;",
            "  Record best{0, 0.0, 0};",
            "  for (int i = 0; i < count; ++i) {",
            "    if (!window.push(records[i])) { Record dropped; window.pop(dropped); window.push(records[i]); }",
            "    if (best < records[i]) best = records[i];",
            "  }",
            "  return best + window.total();",
            "}",
            "",
        ]

    # Explicit instantiations: every member of each becomes a function.
    seen = set()
    for _ in range(rng.randint(4, 8)):
        t = rng.choice(TYPES + ["Record"])
        n = rng.choice([2, 3, 5, 6, 12, 24, 48])
        key = (t, n)
        if key in seen:
            continue
        seen.add(key)
        out.append(f"template class RingBuffer<{t}, {n}>;")
        out.append(f"template class FlatMap<{rng.choice(['int', 'long'])}, {t}, {n}>;")
    out.append("")

    out += [f"long entry{index}(int seed) {{", "  long acc = seed;"]
    for c, (cname, verb) in enumerate(classes):
        out += [f"  {cname} object{c};", f"  acc += object{c}.{verb}((int)acc, 2);"]
    out += ["  return acc;", "}", ""]
    out += [f"}}  // namespace {n}" for n in reversed(ns)]
    out.append("")
    return "\n".join(out), "::".join(ns)


def c_module(index):
    rng = random.Random(index * 104729 + 3)
    p = f"{rng.choice(WORDS)}_{index}"
    out = [f"/* Generated C module {index}. */", "", f"struct {p}_state {{ int counter; long total; double ratio; }};", ""]
    out += [
        f"static inline int {p}_clamp(int v, int lo, int hi) {{ return v < lo ? lo : (v > hi ? hi : v); }}",
        "",
    ]
    for f in range(rng.randint(6, 12)):
        verb = rng.choice(VERBS)
        static = "static " if f % 3 == 0 else ""
        attr = "__attribute__((noinline)) " if static else ""
        out += [
            f"{attr}{static}long {p}_{verb}_{f}(struct {p}_state* s, const int* values, int n) {{",
            "  long acc = s->total;",
            "  for (int i = 0; i < n; ++i) {",
            f"    int v = {p}_clamp(values[i], -{rng.randint(10, 999)}, {rng.randint(1000, 9999)});",
            "    if (v & 1) acc += v; else acc -= v / 2;",
            "    s->counter++;",
            "  }",
            "  s->ratio = s->counter ? (double)acc / s->counter : 0.0;",
            "  s->total = acc;",
            "  return acc;",
            "}",
            "",
        ]
    out += [f"long {p}_entry(int seed) {{ struct {p}_state s = {{0, seed, 0.0}}; int v[4] = {{seed, 1, 2, 3}};",
            f"  return {p}_{verb}_{f}(&s, v, 4); }}", ""]
    return "\n".join(out)


def objc_module(index):
    rng = random.Random(index * 15485863 + 5)
    cls = f"VRL{rng.choice(WORDS).capitalize()}{rng.choice(NOUNS)}{index}"
    out = [
        f"// Generated Objective-C module {index}.",
        "",
        "__attribute__((objc_root_class))",
        f"@interface {cls} {{",
        "  int _count;",
        "  double _weight;",
        "}",
        "- (int)count;",
        "- (void)addValue:(int)value withWeight:(double)weight;",
        "- (double)averageWeightForSamples:(const int *)samples count:(int)count;",
        f"+ (int)defaultCapacityForIdentifier:(int)identifier;",
        "@end",
        "",
        f"static inline int {cls}Scale(int v) {{ return v * 3 + 1; }}",
        "",
        f"@implementation {cls}",
        "- (int)count { return _count; }",
        "- (void)addValue:(int)value withWeight:(double)weight {",
        f"  _count += {cls}Scale(value);",
        "  _weight += weight;",
        "}",
        "- (double)averageWeightForSamples:(const int *)samples count:(int)count {",
        "  double sum = 0;",
        "  for (int i = 0; i < count; ++i) {",
        f"    sum += {cls}Scale(samples[i]) * _weight;",
        "  }",
        "  return count ? sum / count : 0;",
        "}",
        f"+ (int)defaultCapacityForIdentifier:(int)identifier {{ return {cls}Scale(identifier) & {rng.randint(15, 255)}; }}",
        "@end",
        "",
    ]
    return "\n".join(out)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    out_dir, modules = sys.argv[1], int(sys.argv[2])
    os.makedirs(out_dir, exist_ok=True)
    files = []
    entries = []
    headers = header_count(modules)
    for h in range(headers):
        path = os.path.join(out_dir, header_path(h))
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as f:
            f.write(header(h))
    for i in range(modules):
        if i % 8 == 7:
            name = f"objc{i}.m"
            text = objc_module(i)
        elif i % 4 == 3:
            name = f"c{i}.c"
            text = c_module(i)
        else:
            name = f"mod{i}.cpp"
            text, ns = cpp_module(i, headers)
            entries.append(f"{ns}::entry{i}")
        with open(os.path.join(out_dir, name), "w") as f:
            f.write(text)
        files.append(name)

    # main calls one entry of every C++ module so that nothing looks unused.
    main_lines = []
    for e in entries:
        *ns, fn = e.split("::")
        main_lines.append("".join(f"namespace {n} {{ " for n in ns) + f"long {fn}(int);" + " }" * len(ns))
    main_lines += ["", "int main(int argc, char**) {", "  long acc = argc;"]
    main_lines += [f"  acc += {e}((int)acc);" for e in entries]
    main_lines += ["  return (int)(acc & 0x7f);", "}", ""]
    with open(os.path.join(out_dir, "main.cpp"), "w") as f:
        f.write("\n".join(main_lines))
    files.append("main.cpp")
    print("\n".join(files))


if __name__ == "__main__":
    main()
