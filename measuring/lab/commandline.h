#pragma once

#include <charconv>
#include <functional>
#include <map>
#include <string>
#include <system_error>

/// Reads the options of a program: "--name" or "--name VALUE", in any order.
class CommandLine
{
public:
    void addFlag(const std::string& name, bool& flag) { _flags[name] = &flag; }

    template <typename Number> void addNumber(const std::string& name, Number& number, double least = 0)
    {
        addValue(name, [&number, least](const std::string& text) {
            const char* const end = text.data() + text.size();
            const auto [last, error] = std::from_chars(text.data(), end, number);
            return error == std::errc() && last == end && static_cast<double>(number) >= least;
        });
    }

    /// \a take says whether the value is right. The option may come several times.
    void addValue(const std::string& name, const std::function<bool(const std::string&)>& take)
    {
        _values[name] = take;
    }

    /// False at the first word that is no option, and at an option whose value is wrong or missing.
    [[nodiscard]] bool read(int argc, char** argv) const
    {
        for (int i = 1; i < argc; ++i) {
            const auto flag = _flags.find(argv[i]);
            const auto value = _values.find(argv[i]);
            if (flag != _flags.end())
                *flag->second = true;
            else if (value == _values.end() || ++i == argc || !value->second(argv[i]))
                return false;
        }
        return true;
    }

private:
    std::map<std::string, bool*> _flags;
    std::map<std::string, std::function<bool(const std::string&)>> _values;
};
