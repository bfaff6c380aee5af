// Temporary agent home for tests: a fresh directory with config/ and etc/version, exported as
// QVHOME (with a trailing slash) for the lifetime of the object.
#ifndef QV_TEST_TEMP_HOME_H
#define QV_TEST_TEMP_HOME_H

#include <string>
#include <vector>

class TempAgentHome {
  public:
    // Creates the directory tree and sets QVHOME; the previous QVHOME is restored and the tree
    // removed by the destructor. version is the content of etc/version.
    explicit TempAgentHome(const std::string& version = "# build\n5.1.0 build 42\n");
    ~TempAgentHome();
    TempAgentHome(const TempAgentHome&) = delete;
    TempAgentHome& operator=(const TempAgentHome&) = delete;

    // Home directory with a trailing slash, as QVHOME holds it.
    const std::string& path() const { return path_; }
    // Absolute path of rel under the home.
    std::string file(const std::string& rel) const { return path_ + rel; }
    // Writes content to rel (binary, parents created), replacing the file.
    void write(const std::string& rel, const std::string& content) const;
    void remove(const std::string& rel) const;
    // Content of rel, or "" when it cannot be read.
    std::string read(const std::string& rel) const;
    // Files under logs/ and the concatenation of their contents.
    std::vector<std::string> traceLogFiles() const;
    std::string traceLogs() const;

  private:
    std::string path_;
    std::string oldHome_;
    bool hadOldHome_ = false;
};

#endif
