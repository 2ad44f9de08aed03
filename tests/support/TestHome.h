#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

// A private home for one test: /tmp/pelmora-XXXXXX (three path components, so it does not look like a
// sandbox container), with HOME, XDG_CONFIG_HOME and XDG_DATA_HOME pointing into it. The previous
// environment comes back and the folder is removed when the object goes.
class TestHome {
public:
    TestHome();
    ~TestHome();
    TestHome(const TestHome&) = delete;
    TestHome& operator=(const TestHome&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    std::filesystem::path configHome() const { return m_path / ".config"; }
    std::filesystem::path dataHome() const { return m_path / ".local" / "share"; }

private:
    void setVariable(const char* name, const std::string& value);

    std::filesystem::path m_path;
    std::map<std::string, std::optional<std::string>> m_savedEnvironment;
};
