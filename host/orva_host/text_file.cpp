#include "orva_host/text_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <memory>

namespace orva::host {
namespace {

struct Closer {
  void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, Closer>;

// 0 and the open file, or an errno.
int openFile(const std::string& path, File& out) {
  out.reset(std::fopen(path.c_str(), "rbe"));
  if (!out) return errno;
  struct stat info {};
  if (fstat(fileno(out.get()), &info) != 0) return errno;
  return S_ISDIR(info.st_mode) ? EISDIR : 0;
}

}  // namespace

int readTextFile(const std::string& path, std::string& out) {
  File file;
  if (const int error = openFile(path, file); error != 0) return error;
  out.clear();
  char buffer[65536];
  std::size_t count = 0;
  while ((count = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) out.append(buffer, count);
  return std::ferror(file.get()) != 0 ? EIO : 0;
}

int cannotRead(const std::string& path) {
  File file;
  return openFile(path, file);
}

}  // namespace orva::host
