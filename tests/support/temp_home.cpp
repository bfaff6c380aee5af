// Temporary agent home for tests.
#include "support/temp_home.h"

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

TempAgentHome::TempAgentHome(const std::string& version) {
    const char* old = getenv("QVHOME");
    if (old != nullptr) {
        hadOldHome_ = true;
        oldHome_ = old;
    }
    std::string tmpl = (fs::temp_directory_path() / "qvhome_XXXXXX").string();
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = std::string(buf.data()) + "/";
    fs::create_directories(path_ + "config");
    write("etc/version", version);
    setenv("QVHOME", path_.c_str(), 1);
}

TempAgentHome::~TempAgentHome() {
    if (hadOldHome_)
        setenv("QVHOME", oldHome_.c_str(), 1);
    else
        unsetenv("QVHOME");
    std::error_code ec;
    fs::remove_all(path_, ec);
}

void TempAgentHome::write(const std::string& rel, const std::string& content) const {
    fs::path p = file(rel);
    fs::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

void TempAgentHome::remove(const std::string& rel) const {
    std::error_code ec;
    fs::remove(file(rel), ec);
}

std::string TempAgentHome::read(const std::string& rel) const {
    std::ifstream in(file(rel), std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> TempAgentHome::traceLogFiles() const {
    std::vector<std::string> files;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(path_ + "logs", ec)) files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

std::string TempAgentHome::traceLogs() const {
    std::string all;
    for (const auto& f : traceLogFiles()) {
        std::ifstream in(f, std::ios::binary);
        std::ostringstream ss;
        ss << in.rdbuf();
        all += ss.str();
    }
    return all;
}
