#include <algorithm>
#include <iomanip>

#include "orva_cli/commands.h"
#include "orva_cli/host_methods.h"

namespace orva::cli {
namespace {

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  return text;
}

bool matches(const Item& item, const std::vector<std::string>& words) {
  const std::string path = lowerCase(item.path);
  return std::all_of(words.begin(), words.end(), [&path](const std::string& word) {
    return path.find(lowerCase(word)) != std::string::npos;
  });
}

void printTable(const std::vector<Item>& items, std::ostream& out) {
  out << "        id  type        layers    path\n";
  for (const Item& item : items) {
    std::string layers;
    for (const std::string& layer : item.layers) layers += (layers.empty() ? "" : " ") + layer;
    out << std::setw(10) << item.id << "  " << std::left << std::setw(10) << item.type << "  "
        << std::setw(8) << (layers.empty() ? "-" : layers) << std::right << "  " << item.path
        << '\n';
  }
}

void printJson(const std::vector<Item>& items, std::ostream& out) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  writer.StartArray();
  for (const Item& item : items) {
    writer.StartObject();
    writer.Key("id");
    writer.Int64(item.id);
    writer.Key("path");
    writer.String(item.path);
    writer.Key("type");
    writer.String(item.type);
    writer.Key("layers");
    writer.StartArray();
    for (const std::string& layer : item.layers) writer.Int64(json::decimalText(layer.c_str()));
    writer.EndArray();
    writer.EndObject();
  }
  writer.EndArray();
  out << text.GetString() << '\n';
}

}  // namespace

void listCommand(const Options& options, HostClient& host, std::ostream& out,
                 std::ostream& errors) {
  std::vector<Item> items = listItems(host).items;
  const auto isOther = [&options](const Item& item) { return !matches(item, options.words); };
  items.erase(std::remove_if(items.begin(), items.end(), isOther), items.end());
  if (options.format == Format::kJson) {
    printJson(items, out);
  } else if (options.pathsOnly) {
    for (const Item& item : items) out << item.path << '\n';
  } else if (!items.empty()) {
    printTable(items, out);
  }
  if (items.empty()) errors << "orva: no item of the host at " << host.url() << " matches\n";
}

}  // namespace orva::cli
