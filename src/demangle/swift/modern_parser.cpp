#include "demangle/swift/modern_parser.h"

#include "demangle/swift/known_types.h"
#include "demangle/swift/punycode.h"

namespace symlift::demangle::swift {

namespace {
// Bounds on what one name may build: far above any real name, low enough
// that a hostile one cannot make the reader use much memory or time.
constexpr std::size_t kMaxStack = 4096;
constexpr std::uint64_t kMaxRepeat = 64;
constexpr std::size_t kMaxWords = 26;
}  // namespace

ModernParser::ModernParser(NodeArena& arena, ParseBuffers& buffers, std::string_view body, bool swift4)
    : arena_(arena),
      in_(body),
      buffers_(buffers),
      stack_(buffers.stack),
      substitutions_(buffers.substitutions),
      words_(buffers.words),
      swift4_(swift4) {
  buffers.clear();
}

NodeId ModernParser::pop() {
  if (stack_.empty()) return kNoNode;
  NodeId id = stack_.back();
  stack_.pop_back();
  return id;
}

NodeId ModernParser::peekNode(std::size_t depth) const {
  return depth < stack_.size() ? stack_[stack_.size() - 1 - depth] : kNoNode;
}

bool ModernParser::topIs(NodeKind kind) const { return !stack_.empty() && arena_.kind(stack_.back()) == kind; }

NodeId ModernParser::popIfKind(NodeKind kind) { return topIs(kind) ? pop() : kNoNode; }

NodeId ModernParser::popType() {
  if (stack_.empty() || !isType(arena_.kind(stack_.back()))) return kNoNode;
  return pop();
}

NodeId ModernParser::popContext() {
  if (stack_.empty()) return kNoNode;
  NodeKind kind = arena_.kind(stack_.back());
  if (kind == NodeKind::Identifier) return arena_.withKind(pop(), NodeKind::Module);
  if (isContext(kind)) return pop();
  return kNoNode;
}

NodeId ModernParser::popModule() {
  if (topIs(NodeKind::Identifier)) return arena_.withKind(pop(), NodeKind::Module);
  return popIfKind(NodeKind::Module);
}

NodeId ModernParser::popDeclName() {
  if (stack_.empty() || !isDeclName(arena_.kind(stack_.back()))) return kNoNode;
  return pop();
}

NodeId ModernParser::popProtocol() {
  if (topIs(NodeKind::Protocol)) return pop();
  // In requirements and conformances a protocol is just a context and a
  // name, without the 'P' that makes it a type elsewhere.
  NodeId name = peekNode(0), context = peekNode(1);
  if (name == kNoNode || context == kNoNode || !isDeclName(arena_.kind(name))) return popType();
  NodeKind ck = arena_.kind(context);
  if (ck != NodeKind::Identifier && !isContext(ck)) return kNoNode;
  pop();
  NodeId ctx = popContext();
  // Unlike a protocol made a type by 'P', this one is no substitution.
  return arena_.make(NodeKind::Protocol, {ctx, name});
}

void ModernParser::addSubstitution(NodeId id) {
  if (id != kNoNode) substitutions_.push_back(id);
}

NodeId ModernParser::parse(NodeId start) {
  if (start != kNoNode) push(start);
  while (!in_.atEnd()) {
    if (++steps_ > kMaxSteps || stack_.size() > kMaxStack) return kNoNode;
    if (in_.peek() == '.' && !stack_.empty()) {
      // Everything after a '.' is a suffix the compiler or linker added.
      NodeId suffix = arena_.makeText(NodeKind::Suffix, in_.rest());
      in_.seek(in_.text().size());
      NodeId global = pop();
      if (!stack_.empty()) return kNoNode;
      return arena_.make(NodeKind::Global, {global, suffix});
    }
    if (!parseOperator()) return kNoNode;
  }
  if (stack_.size() != 1) return kNoNode;
  // A lone name or list marker is not a symbol.
  NodeKind kind = arena_.kind(stack_[0]);
  if (kind == NodeKind::Identifier || kind == NodeKind::Module || kind == NodeKind::EmptyList ||
      kind == NodeKind::FirstElementMarker || kind == NodeKind::GenericSignature || kind == NodeKind::FunctionAttr)
    return kNoNode;
  return arena_.make(NodeKind::Global, {stack_[0]});
}

bool ModernParser::parseOperator() {
  char c = in_.next();
  switch (c) {
    case 'A': return parseSubstitution();
    case 'B': return parseBuiltin();
    case 'C': return parseNominal(NodeKind::Class);
    case 'D': {
      NodeId type = popType();
      if (type == kNoNode) return false;
      push(arena_.make(NodeKind::TypeMangling, {type}));
      return true;
    }
    case 'E': return parseExtension();
    case 'F': return parseFunctionEntity();
    case 'G': return parseBoundGeneric();
    case 'H': return parseH();
    case 'I': return parseImplFunctionType();
    case 'K': push(arena_.makeText(NodeKind::FunctionAttr, "throws")); return true;
    case 'L': return parseLocalName();
    case 'M': return parseM();
    case 'N': return prefixType(Phrase::TypeMetadata);
    case 'O': return parseNominal(NodeKind::Enum);
    case 'P': return parseNominal(NodeKind::Protocol);
    case 'Q': return parseQ();
    case 'R': return parseRequirement();
    case 'S': return parseKnownType();
    case 'T': return parseT();
    case 'V': return parseNominal(NodeKind::Structure);
    case 'W': return parseW();
    case 'X': return parseX();
    case 'Y': return parseY();
    case 'Z': {
      NodeId entity = pop();
      if (entity == kNoNode || !isEntity(arena_.kind(entity))) return false;
      push(arena_.make(NodeKind::Static, {entity}));
      return true;
    }
    case 'a': return parseNominal(NodeKind::TypeAlias);
    case 'c': return parseFunctionSignature(0);
    case 'd': push(arena_.make(NodeKind::VariadicMarker)); return true;
    case 'f': return parseF();
    case 'g': {
      std::uint64_t index = 0;
      NodeId conformance = popIfConformance();
      if (conformance == kNoNode || !in_.index(index)) return false;
      push(arena_.makeIndex(NodeKind::RetroactiveConformance, index, {conformance}));
      return true;
    }
    case 'h': return wrapTop(NodeKind::Shared);
    case 'i': return parseSubscript();
    case 'l': in_.back(); return parseGenericSignature(false);
    case 'm': return wrapTop(NodeKind::MetatypeType);
    case 'n': return wrapTop(NodeKind::Owned);
    case 'o': {
      NodeId name = popIfKind(NodeKind::Identifier);
      if (name == kNoNode) return false;
      char fixity = in_.next();
      NodeKind kind = fixity == 'p' ? NodeKind::PrefixOperator
                      : fixity == 'P' ? NodeKind::PostfixOperator
                      : fixity == 'i' ? NodeKind::InfixOperator
                                      : NodeKind::Identifier;
      if (kind == NodeKind::Identifier) return false;
      push(arena_.withKind(name, kind));
      return true;
    }
    case 'p': return parseProtocolList(NodeKind::ProtocolList);
    case 'q': {
      std::uint64_t packed = 0;
      if (!parseGenericParamIndex(packed)) return false;
      push(arena_.makeIndex(NodeKind::GenericParam, packed));
      return true;
    }
    case 'r': in_.back(); return parseGenericSignature(true);
    case 's': push(arena_.makeText(NodeKind::Module, "Swift")); return true;
    case 't': return parseTuple();
    case 'u': {
      NodeId signature = popIfKind(NodeKind::GenericSignature);
      NodeId type = popType();
      if (signature == kNoNode || type == kNoNode) return false;
      push(arena_.make(NodeKind::DependentGenericType, {signature, type}));
      return true;
    }
    case 'v': return parseVariable();
    case 'w': {
      std::string_view kind = valueWitnessName(in_.take(2));
      NodeId type = popType();
      if (kind.empty() || type == kNoNode) return false;
      push(arena_.makeText(NodeKind::Described, kind, std::span<const NodeId>(&type, 1)));
      return true;
    }
    case 'x': push(arena_.makeIndex(NodeKind::GenericParam, 0)); return true;
    case 'y': push(arena_.make(NodeKind::EmptyList)); return true;
    case 'z': return wrapTop(NodeKind::InOut);
    case '_': push(arena_.make(NodeKind::FirstElementMarker)); return true;
    case '$': {
      bool negative = in_.nextIf('n');
      std::uint64_t value = 0;
      if (!in_.index(value)) return false;
      NodeId node = arena_.makeText(NodeKind::IntegerType, negative ? "-" : "");
      arena_.setIndex(node, value);
      push(node);
      return true;
    }
    default:
      if (Cursor::isDigit(c)) {
        in_.back();
        return parseIdentifier();
      }
      return false;
  }
}

bool ModernParser::wrapTop(NodeKind kind) {
  // A label read after a tuple element's type stays on top of it.
  NodeId label = popIfKind(NodeKind::Identifier);
  NodeId type = popType();
  if (type == kNoNode) return false;
  push(arena_.make(kind, {type}));
  if (label != kNoNode) push(label);
  return true;
}

bool ModernParser::prefixTop(Phrase phrase) {
  NodeId subject = pop();
  if (subject == kNoNode) return false;
  push(arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(phrase), {subject}));
  return true;
}

bool ModernParser::prefixProtocol(Phrase phrase) {
  NodeId protocol = popProtocol();
  if (protocol == kNoNode) return false;
  push(protocol);
  return prefixTop(phrase);
}

bool ModernParser::prefixType(Phrase phrase) {
  if (stack_.empty() || !isType(arena_.kind(stack_.back()))) return false;
  return prefixTop(phrase);
}

// Identifiers -------------------------------------------------------------

namespace {
// Words of a literal part: letters and digits, split at '_' and where an
// upper-case letter follows a character that is not upper case; a word
// starts at a letter and is at least two characters long.
void collectWords(std::string_view text, std::vector<std::string_view>& words) {
  std::size_t start = std::string_view::npos;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    char c = i < text.size() ? text[i] : '\0';
    char previous = i > 0 ? text[i - 1] : '\0';
    if (start != std::string_view::npos) {
      bool ends = c == '_' || c == '\0' || (Cursor::isUpper(c) && !Cursor::isUpper(previous));
      if (ends) {
        if (i - start >= 2 && words.size() < kMaxWords) words.push_back(text.substr(start, i - start));
        start = std::string_view::npos;
      }
    }
    if (start == std::string_view::npos && c != '\0' && c != '_' && !Cursor::isDigit(c)) start = i;
  }
}
}  // namespace

bool ModernParser::parseIdentifier() {
  if (in_.nextIf("00")) {
    std::uint64_t length = 0;
    if (!in_.natural(length)) return false;
    std::string_view encoded = in_.take(length);
    if (encoded.empty() && length) return false;
    if (!encoded.empty() && encoded[0] == '_') encoded.remove_prefix(1);
    std::string decoded;
    if (!decodePunycode(encoded, decoded)) return false;
    NodeId id = arena_.makeOwnedText(NodeKind::Identifier, decoded);
    push(id);
    addSubstitution(id);
    return true;
  }
  if (in_.nextIf('0')) {
    std::string& text = buffers_.text;
    text.clear();
    for (;;) {
      char c = in_.peek();
      if (Cursor::isDigit(c) && c != '0') {
        std::uint64_t length = 0;
        if (!in_.natural(length)) return false;
        std::string_view literal = in_.take(length);
        if (literal.size() != length || length == 0) return false;
        text.append(literal);
        buffers_.literals.push_back(literal);
      } else if (Cursor::isLower(c) || Cursor::isUpper(c)) {
        in_.next();
        std::size_t word = static_cast<std::size_t>(Cursor::isLower(c) ? c - 'a' : c - 'A');
        // Words are split out of the literals only when one is referred to.
        if (word >= words_.size()) {
          for (std::string_view literal : buffers_.literals) collectWords(literal, words_);
          buffers_.literals.clear();
        }
        if (word >= words_.size()) return false;
        text.append(words_[word]);
        if (Cursor::isUpper(c)) {
          if (in_.nextIf('0')) break;
          if (Cursor::isDigit(in_.peek())) {
            std::uint64_t length = 0;
            if (!in_.natural(length)) return false;
            std::string_view literal = in_.take(length);
            if (literal.size() != length || length == 0) return false;
            text.append(literal);
            buffers_.literals.push_back(literal);
          }
          break;
        }
      } else {
        return false;
      }
    }
    NodeId id = arena_.makeOwnedText(NodeKind::Identifier, text);
    push(id);
    addSubstitution(id);
    return true;
  }
  std::uint64_t length = 0;
  if (!in_.natural(length) || length == 0) return false;
  std::string_view text = in_.take(length);
  if (text.size() != length) return false;
  buffers_.literals.push_back(text);
  NodeId id = arena_.makeText(NodeKind::Identifier, text);
  push(id);
  addSubstitution(id);
  return true;
}

bool ModernParser::parseSubstitution() {
  std::uint64_t count = 1;
  bool haveCount = false;
  for (;;) {
    if (in_.nextIf('_')) {
      std::uint64_t index = haveCount ? count + 1 + 26 : 26;
      if (index >= substitutions_.size()) return false;
      push(substitutions_[index]);
      return true;
    }
    if (Cursor::isDigit(in_.peek())) {
      if (!in_.natural(count) || count == 0) return false;
      haveCount = true;
      continue;
    }
    char c = in_.next();
    if (!Cursor::isLetter(c)) return false;
    std::size_t index = static_cast<std::size_t>(Cursor::isLower(c) ? c - 'a' : c - 'A');
    if (index >= substitutions_.size()) return false;
    // "A3a" repeats; a count is never followed by '_' here.
    if (count > kMaxRepeat) return false;
    for (std::uint64_t i = 0; i < count; ++i) push(substitutions_[index]);
    count = 1;
    haveCount = false;
    if (Cursor::isUpper(c)) return true;
  }
}

bool ModernParser::parseKnownType() {
  std::uint64_t count = 1;
  if (Cursor::isDigit(in_.peek()) && (!in_.natural(count) || count == 0 || count > kMaxRepeat)) return false;
  char c = in_.next();
  NodeId node = kNoNode;
  if (c == 'C' && count == 1) {
    node = arena_.makeText(NodeKind::Module, "__C_Synthesized");
  } else if (c == 'o' && count == 1) {
    node = arena_.makeText(NodeKind::Module, "__C");
  } else if (c == 'g' && count == 1) {
    NodeId type = popType();
    if (type == kNoNode) return false;
    NodeId list = arena_.make(NodeKind::TypeList, {type});
    node = arena_.make(NodeKind::BoundGeneric, {knownType(arena_, 'q', false), list});
    push(node);
    addSubstitution(node);
    return true;
  } else if (c == 'c') {
    node = knownType(arena_, in_.next(), true);
  } else {
    node = knownType(arena_, c, false);
  }
  if (node == kNoNode) return false;
  for (std::uint64_t i = 0; i < count; ++i) push(node);
  return true;
}

bool ModernParser::parseBuiltin() {
  char c = in_.next();
  if (c == 'f' || c == 'i' || c == 'v') {
    std::uint64_t width = 0;
    if (!in_.natural(width) || !in_.nextIf('_')) return false;
    if (c == 'v') {
      NodeId element = popType();
      if (element == kNoNode) return false;
      push(arena_.makeIndex(NodeKind::BuiltinVector, width, {element}));
      return true;
    }
    NodeId node = arena_.makeText(NodeKind::BuiltinType, c == 'f' ? "Builtin.FPIEEE" : "Builtin.Int");
    arena_.setIndex(node, width);
    push(node);
    return true;
  }
  if (c == 'V') {
    NodeId element = popType();
    NodeId count = popType();
    if (element == kNoNode || count == kNoNode) return false;
    push(arena_.make(NodeKind::BuiltinFixedArray, {count, element}));
    return true;
  }
  if (c == 'W') return wrapTop(NodeKind::BuiltinBorrow);
  std::string_view name = builtinTypeName(c);
  if (name.empty()) return false;
  push(arena_.makeText(NodeKind::BuiltinType, name));
  return true;
}

bool ModernParser::parseNominal(NodeKind kind) {
  NodeId name = popDeclName();
  NodeId context = popContext();
  if (name == kNoNode || context == kNoNode) return false;
  NodeId node = arena_.make(kind, {context, name});
  push(node);
  addSubstitution(node);
  return true;
}

bool ModernParser::parseExtension() {
  NodeId signature = popIfKind(NodeKind::GenericSignature);
  NodeId module = popModule();
  NodeId entity = pop();
  if (module == kNoNode || entity == kNoNode) return false;
  if (arena_.kind(entity) == NodeKind::Identifier) return false;
  if (signature != kNoNode)
    push(arena_.make(NodeKind::Extension, {module, entity, signature}));
  else
    push(arena_.make(NodeKind::Extension, {module, entity}));
  return true;
}

bool ModernParser::parseLocalName() {
  if (in_.nextIf('L')) {
    NodeId discriminator = popIfKind(NodeKind::Identifier);
    NodeId name = popIfKind(NodeKind::Identifier);
    if (discriminator == kNoNode || name == kNoNode) return false;
    push(arena_.make(NodeKind::PrivateDeclName, {discriminator, name}));
    return true;
  }
  if (in_.nextIf('l')) {
    NodeId discriminator = popIfKind(NodeKind::Identifier);
    if (discriminator == kNoNode) return false;
    push(arena_.make(NodeKind::PrivateDeclName, {discriminator}));
    return true;
  }
  char c = in_.peek();
  if ((c >= 'a' && c <= 'j') || (c >= 'A' && c <= 'J')) {
    in_.next();
    NodeId name = popIfKind(NodeKind::Identifier);
    if (name == kNoNode) return false;
    push(arena_.makeText(NodeKind::RelatedEntityDeclName, in_.text().substr(in_.position() - 1, 1),
                         std::span<const NodeId>(&name, 1)));
    return true;
  }
  std::uint64_t index = 0;
  NodeId name = popDeclName();
  if (name == kNoNode || !in_.index(index)) return false;
  push(arena_.makeIndex(NodeKind::LocalDeclName, index, {name}));
  return true;
}

}  // namespace symlift::demangle::swift
