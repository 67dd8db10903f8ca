#include "orva_host/static_files.h"

#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "host/trace.h"
#include "orva_host/program_folder.h"

namespace orva::host {
namespace {

namespace fs = std::filesystem;

// All pages together are some hundred kilobytes; what has more is another folder.
constexpr std::uintmax_t kMostBytes = 8U << 20;
constexpr std::size_t kMostFiles = 500;

// Scripts and styles come from this host alone, and nothing is sent anywhere else.
const char kPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: blob:; "
    "font-src 'self'; connect-src 'self'; manifest-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'self'";

const std::map<std::string, std::string>& contentTypes() {
  static const std::map<std::string, std::string> types{{".html", "text/html; charset=utf-8"},
                                                        {".css", "text/css; charset=utf-8"},
                                                        {".js", "text/javascript; charset=utf-8"},
                                                        {".svg", "image/svg+xml"},
                                                        {".png", "image/png"},
                                                        {".ico", "image/x-icon"},
                                                        {".woff2", "font/woff2"},
                                                        {".txt", "text/plain; charset=utf-8"}};
  return types;
}

struct Page {
  std::string contentType;
  std::string body;
  std::string tag;  // changes with the body
};

std::string tagOf(const std::string& body) {
  std::uint64_t hash = 0xCBF29CE484222325;  // FNV-1a
  for (const char c : body) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
  char text[24];
  std::snprintf(text, sizeof text, "\"%016" PRIx64 "\"", hash);
  return text;
}

bool isKnown(const HttpRequest& request, const Page& page) {
  const std::string tags = request.header("if-none-match");
  return tags == "*" || tags.find(page.tag) != std::string::npos;
}

HttpReply serve(const HttpRequest& request, const Page& page) {
  HttpReply reply;
  reply.contentType = page.contentType;
  reply.headers = {{"ETag", page.tag},
                   {"Cache-Control", "no-cache"},
                   {"Content-Security-Policy", kPolicy},
                   {"Referrer-Policy", "no-referrer"}};
  if (isKnown(request, page)) {
    reply.status = 304;
  } else {
    reply.body = page.body;
  }
  return reply;
}

HttpRoute openRoute(const std::string& path, std::function<HttpReply(const HttpRequest&)> handler) {
  HttpRoute route;
  route.method = "GET";
  route.path = path;
  route.handler = std::move(handler);
  route.open = true;
  return route;
}

// The paths under which a file is found, by its own path in the folder.
std::vector<std::string> routePaths(const fs::path& file) {
  std::vector<std::string> paths{"/" + file.generic_string()};
  if (file == "index.html") {
    paths.emplace_back("/");
  } else if (file.extension() == ".html") {
    paths.push_back("/" + fs::path(file).replace_extension().generic_string());
  }
  return paths;
}

std::string bytesOf(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  std::ostringstream bytes;
  bytes << stream.rdbuf();
  return bytes.str();
}

// The files of the folder that a browser is given, by their path in it. False when they are more
// than pages can be.
bool findFiles(const fs::path& folder, std::vector<fs::path>& found) {
  std::error_code error;
  std::uintmax_t bytes = 0;
  const auto end = fs::recursive_directory_iterator();
  for (auto entry = fs::recursive_directory_iterator(folder, error); !error && entry != end;
       entry.increment(error)) {
    if (entry->is_symlink(error) || !entry->is_regular_file(error)) continue;
    if (contentTypes().count(entry->path().extension().string()) == 0) continue;
    bytes += entry->file_size(error);
    found.push_back(entry->path().lexically_relative(folder));
    if (bytes > kMostBytes || found.size() > kMostFiles) return false;
  }
  return true;
}

std::vector<HttpRoute> missingPage(const std::string& why) {
  const std::string text = "The trend page is not there: " + why +
                           "\n\nIt is built with the host where node and npm are found, and stands "
                           "in the folder that \"http\".\"web\"\nof the configuration names, else "
                           "in ../share/orva/web beside the program.\nEverything else is served: "
                           "try /api/items, /metrics and POST /Methods/HistoryReadRaw.\n";
  return {openRoute("/", [text](const HttpRequest&) {
    HttpReply reply;
    reply.status = 404;
    reply.contentType = "text/plain; charset=utf-8";
    reply.body = text;
    return reply;
  })};
}

}  // namespace

std::string defaultWebFolder() {
  return (programFolder() / "../share/orva/web").lexically_normal().string();
}

std::vector<HttpRoute> pageRoutes(const std::string& folder) {
  std::error_code error;
  if (!fs::is_regular_file(fs::path(folder) / "index.html", error)) {
    return missingPage("there is no index.html in " + folder + ".");
  }
  std::vector<fs::path> files;
  if (!findFiles(folder, files)) {
    return missingPage(folder + " holds more than 8 MB or 500 files, so it is another folder.");
  }
  std::vector<HttpRoute> routes;
  for (const fs::path& file : files) {
    auto page = std::make_shared<Page>();
    page->contentType = contentTypes().at(file.extension().string());
    page->body = bytesOf(fs::path(folder) / file);
    page->tag = tagOf(page->body);
    for (const std::string& path : routePaths(file)) {
      routes.push_back(
          openRoute(path, [page](const HttpRequest& request) { return serve(request, *page); }));
    }
  }
  return routes;
}

}  // namespace orva::host
