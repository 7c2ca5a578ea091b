#include "client/check/references.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "client/check/toml_node.h"
#include "client/check/value_reader.h"
#include "client/suggest.h"
#include "common/text.h"

namespace client {
namespace {

using moru_vyr::lsp::ProxyRecord;
using moru_vyr::lsp::RouteProxyInfo;

std::span<const ProxyRecord> Nodes(const Tables& tables) {
  return {tables.route.image.proxies, tables.route.image.proxy_count};
}

const ProxyRecord* FindNode(const Tables& tables, const std::string& name) {
  for (const ProxyRecord& node : Nodes(tables)) {
    if (!name.empty() && common::FieldText(node.proxy_name) == name) return &node;
  }
  return nullptr;
}

// What a node and a proxy of a decision have in common.
RouteProxyInfo FromNode(const ProxyRecord& node) {
  RouteProxyInfo proxy;
  proxy.type = node.type;
  proxy.flag = node.flag;
  common::SetFieldText(proxy.proxy_addr, common::FieldText(node.proxy_addr));
  proxy.proxy_port = node.proxy_port;
  proxy.proxy_idc = node.proxy_idc;
  proxy.proxy_isp = node.proxy_isp;
  common::SetFieldText(proxy.proxy_name, common::FieldText(node.proxy_name));
  proxy.section1_delay = node.section1_delay;
  proxy.section1_lost = node.section1_lost;
  proxy.to_proxy_speed_isp = node.to_proxy_speed_isp;
  proxy.to_proxy_speed_ip = node.to_proxy_speed_ip;
  proxy.surport_isps = node.surport_isps;
  proxy.version = node.version;
  return proxy;
}

}  // namespace

bool References::IsReference(Kind kind) {
  return kind == Kind::kNode || kind == Kind::kLastNode || kind == Kind::kIdc;
}

void References::Resolve(const std::string& name, unsigned line, const Field& field, std::byte* to,
                         const std::string& key) {
  if (field.kind == Kind::kIdc) {
    if (const auto found = idcs_.find(name); found != idcs_.end()) {
      return Store(to, field.size, found->second);
    }
    std::vector<std::string_view> names;
    for (const auto& [known, number] : idcs_) names.emplace_back(known);
    return Unresolved(name, line, key, "[[idc]]", names);
  }
  if (const ProxyRecord* const node = FindNode(tables_, name)) {
    return Store(to, field.size, node->proxy_idc);
  }
  NoSuchNode(name, line, key);
}

void References::CheckNode(const std::byte* number, unsigned line, const std::string& key) {
  uint32_t idc = 0;
  std::memcpy(&idc, number, sizeof idc);
  const auto nodes = Nodes(tables_);
  if (idc == 0 || std::any_of(nodes.begin(), nodes.end(),
                              [idc](const ProxyRecord& node) { return node.proxy_idc == idc; })) {
    return;
  }
  AddError(problems_, line, key, std::to_string(idc) + " is the proxy_idc of no [[node]]");
}

bool References::TakeOverNode(const toml::table& table, const Shape& shape, std::byte* record,
                              const std::string& path) {
  for (const Field& field : shape.fields) {
    if (field.kind != Kind::kFromNode || !table.contains(field.key)) continue;
    const toml::node& node = *table.get(field.key);
    const auto* const name = node.as_string();
    if (name == nullptr) {
      AddError(problems_, LineOf(node), path + field.key,
               std::string("wants a text, found ") + TypeName(node));
    } else if (const ProxyRecord* const found = FindNode(tables_, **name)) {
      const RouteProxyInfo proxy = FromNode(*found);
      std::memcpy(record, &proxy, sizeof proxy);
    } else {
      NoSuchNode(**name, LineOf(node), path + field.key);
    }
    return true;
  }
  return false;
}

void References::NoSuchNode(const std::string& name, unsigned line, const std::string& key) {
  std::vector<std::string_view> names;
  for (const ProxyRecord& node : Nodes(tables_)) {
    names.push_back(common::FieldText(node.proxy_name));
  }
  Unresolved(name, line, key, "[[node]]", names);
}

void References::Unresolved(const std::string& name, unsigned line, const std::string& key,
                            const char* list, const std::vector<std::string_view>& names) {
  const std::string meant = Suggest(name, names);
  const std::string reason = std::string("no ") + list + " has the name '" + name + "'" +
                             (meant.empty() ? "" : "; did you mean '" + meant + "'?");
  const auto [place, is_new] = other_lines_.try_emplace(reason);
  if (is_new) {
    AddError(problems_, line, key, reason);
  } else {
    place->second.insert(line);
  }
}

void References::NameOtherPlaces() {
  for (Problem& problem : *problems_) {
    const auto others = other_lines_.find(problem.reason);
    if (others == other_lines_.end()) continue;
    others->second.erase(problem.line);
    std::string lines;
    for (const unsigned line : others->second) {
      lines += (lines.empty() ? "" : ", ") + std::to_string(line);
    }
    if (!lines.empty()) problem.reason += " (also in line " + lines + ")";
  }
}

}  // namespace client
