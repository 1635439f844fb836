// A fresh folder for one test's files (below $TMPDIR, else /tmp, which the CAN test guest also has),
// removed with everything in it when the object goes.
#pragma once

#include <string>

// The whole content of the file at `path` ("" when it cannot be read).
std::string readText(const std::string& path);

class TempDir {
  public:
    // Makes the folder "<tmp>/varnoch-<tag>-XXXXXX"; aborts the test program when it cannot.
    explicit TempDir(const std::string& tag = "test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string path(const std::string& name) const { return path_ + "/" + name; }
    // Writes `bytes` to `name` inside the folder (replacing it); returns its path.
    std::string write(const std::string& name, const std::string& bytes) const;
    // The whole content of `name` inside the folder ("" when it cannot be read).
    std::string read(const std::string& name) const { return readText(path(name)); }

  private:
    std::string path_;
};
