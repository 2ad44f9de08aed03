#include "TestHome.h"

#include "TreeBuilder.h"

#include <cstdlib>
#include <stdexcept>

TestHome::TestHome()
{
    char pattern[] = "/tmp/pelmora-XXXXXX";
    if (!::mkdtemp(pattern))
        throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
    setVariable("HOME", m_path.string());
    setVariable("XDG_CONFIG_HOME", configHome().string());
    setVariable("XDG_DATA_HOME", dataHome().string());
}

TestHome::~TestHome()
{
    for (const auto& [name, value] : m_savedEnvironment) {
        if (value)
            ::setenv(name.c_str(), value->c_str(), 1);
        else
            ::unsetenv(name.c_str());
    }
    TreeBuilder::removeTree(m_path);
}

void TestHome::setVariable(const char* name, const std::string& value)
{
    if (!m_savedEnvironment.count(name)) {
        const char* old = std::getenv(name);
        m_savedEnvironment[name] = old ? std::optional<std::string>(old) : std::nullopt;
    }
    ::setenv(name, value.c_str(), 1);
}
