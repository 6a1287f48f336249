#include "files_in.h"

#include <dirent.h>

#include <algorithm>

std::vector<std::string> FilesIn(const std::string &folder, const std::string &suffix) {
  std::vector<std::string> files;
  DIR *dir = opendir(folder.c_str());
  if (!dir) return files;
  while (dirent *e = readdir(dir)) {
    std::string name = e->d_name;
    if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
      files.push_back(folder + "/" + name);
  }
  closedir(dir);
  std::sort(files.begin(), files.end());
  return files;
}
