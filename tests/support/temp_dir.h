// A temporary directory, removed with everything in it (one level) when the
// object goes.
#pragma once

#include <dirent.h>
#include <stdlib.h>
#include <string>
#include <unistd.h>

namespace zrtest {

class temp_dir {
  public:
    temp_dir()
    {
        char pattern[] = "/tmp/zrconfig-test-XXXXXX";
        path_ = mkdtemp(pattern) != nullptr ? pattern : "";
    }
    ~temp_dir() { remove_tree(path_); }
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;

    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    static void remove_tree(const std::string &dir)
    {
        if (DIR *d = opendir(dir.c_str())) {
            while (dirent *entry = readdir(d)) {
                std::string name = entry->d_name;
                if (name == "." || name == "..")
                    continue;
                std::string path = dir + "/" + name;
                if (unlink(path.c_str()) != 0)
                    remove_tree(path);
            }
            closedir(d);
        }
        rmdir(dir.c_str());
    }

    std::string path_;
};

} // namespace zrtest
