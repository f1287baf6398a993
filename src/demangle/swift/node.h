#pragma once
// The tree a mangled name is read into: nodes live in one flat vector and
// refer to each other by index, so reading a name allocates nothing once the
// vectors have grown to the size of the names seen so far.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "demangle/swift/node_kind.h"

namespace symlift::demangle::swift {

using NodeId = std::uint32_t;
inline constexpr NodeId kNoNode = 0xffffffffu;

struct Node {
  NodeKind kind = NodeKind::Identifier;
  // Text lives in the mangled name, in a static table, or in the arena's
  // own buffer (decoded identifiers); the flag says which one it is.
  bool textInArena = false;
  std::uint32_t firstChild = 0;
  std::uint32_t childCount = 0;
  const char* textPointer = nullptr;
  std::uint32_t textOffset = 0;
  std::uint32_t textLength = 0;
  std::uint64_t index = 0;
};

class NodeArena {
 public:
  void clear() {
    nodes_.clear();
    children_.clear();
    text_.clear();
  }

  NodeId make(NodeKind kind, std::span<const NodeId> children = {}) {
    Node node;
    node.kind = kind;
    node.firstChild = static_cast<std::uint32_t>(children_.size());
    node.childCount = static_cast<std::uint32_t>(children.size());
    children_.insert(children_.end(), children.begin(), children.end());
    nodes_.push_back(node);
    return static_cast<NodeId>(nodes_.size() - 1);
  }
  NodeId make(NodeKind kind, std::initializer_list<NodeId> children) {
    return make(kind, std::span<const NodeId>(children.begin(), children.size()));
  }
  NodeId makeText(NodeKind kind, std::string_view text, std::span<const NodeId> children = {}) {
    NodeId id = make(kind, children);
    nodes_[id].textPointer = text.data();
    nodes_[id].textLength = static_cast<std::uint32_t>(text.size());
    return id;
  }
  NodeId makeIndex(NodeKind kind, std::uint64_t index, std::span<const NodeId> children = {}) {
    NodeId id = make(kind, children);
    nodes_[id].index = index;
    return id;
  }
  NodeId makeIndex(NodeKind kind, std::uint64_t index, std::initializer_list<NodeId> children) {
    return makeIndex(kind, index, std::span<const NodeId>(children.begin(), children.size()));
  }
  // A node whose text is built here (word substitutions, Punycode).
  NodeId makeOwnedText(NodeKind kind, std::string_view text) {
    NodeId id = make(kind);
    nodes_[id].textInArena = true;
    nodes_[id].textOffset = static_cast<std::uint32_t>(text_.size());
    nodes_[id].textLength = static_cast<std::uint32_t>(text.size());
    text_.append(text);
    return id;
  }
  // The same node with another kind (an identifier read as a module).
  NodeId withKind(NodeId id, NodeKind kind) {
    if (nodes_[id].kind == kind) return id;
    Node copy = nodes_[id];
    copy.kind = kind;
    nodes_.push_back(copy);
    return static_cast<NodeId>(nodes_.size() - 1);
  }
  // The same node with one child replaced.
  NodeId withChild(NodeId id, std::uint32_t which, NodeId child) {
    std::vector<NodeId>& scratch = scratch_;
    scratch.assign(children(id).begin(), children(id).end());
    scratch[which] = child;
    Node copy = nodes_[id];
    NodeId result = make(copy.kind, scratch);
    Node& made = nodes_[result];
    made.textInArena = copy.textInArena;
    made.textPointer = copy.textPointer;
    made.textOffset = copy.textOffset;
    made.textLength = copy.textLength;
    made.index = copy.index;
    return result;
  }

  void setIndex(NodeId id, std::uint64_t index) { nodes_[id].index = index; }
  // Gives node `to` the text of node `from`.
  void copyText(NodeId to, NodeId from) {
    Node& target = nodes_[to];
    const Node& source = nodes_[from];
    target.textInArena = source.textInArena;
    target.textPointer = source.textPointer;
    target.textOffset = source.textOffset;
    target.textLength = source.textLength;
  }

  const Node& operator[](NodeId id) const { return nodes_[id]; }
  NodeKind kind(NodeId id) const { return nodes_[id].kind; }
  std::uint64_t index(NodeId id) const { return nodes_[id].index; }
  std::span<const NodeId> children(NodeId id) const {
    const Node& node = nodes_[id];
    return {children_.data() + node.firstChild, node.childCount};
  }
  std::uint32_t childCount(NodeId id) const { return nodes_[id].childCount; }
  NodeId child(NodeId id, std::uint32_t which) const {
    const Node& node = nodes_[id];
    return which < node.childCount ? children_[node.firstChild + which] : kNoNode;
  }
  std::string_view text(NodeId id) const {
    const Node& node = nodes_[id];
    if (node.textInArena) return std::string_view(text_).substr(node.textOffset, node.textLength);
    return {node.textPointer, node.textLength};
  }
  std::size_t size() const { return nodes_.size(); }

 private:
  std::vector<Node> nodes_;
  std::vector<NodeId> children_;
  std::string text_;
  std::vector<NodeId> scratch_;
};

}  // namespace symlift::demangle::swift
