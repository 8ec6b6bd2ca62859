#pragma once

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <system_error>

/// Reads the options of a program: "--name" or "--name VALUE", in any order.
class CommandLine
{
public:
    explicit CommandLine(const std::string& usage)
        : _usage(usage + '\n')
    {
    }

    void addFlag(const std::string& name, bool& flag, const std::string& help)
    {
        _options[name] = {false, [&flag](const std::string& /*name*/) { return flag = true; }};
        _usage += "  " + name + ": " + help + '\n';
    }

    template <typename Number>
    void addNumber(const std::string& name, Number& number, double least, const std::string& help)
    {
        const auto take = [&number, least](const std::string& text) {
            const char* const end = text.data() + text.size();
            const auto [last, error] = std::from_chars(text.data(), end, number);
            return error == std::errc() && last == end && static_cast<double>(number) >= least;
        };
        addValue(name, take, help);
    }

    /// \a take says whether the value is right. The option may come several times.
    void addValue(const std::string& name, const std::function<bool(const std::string&)>& take,
                  const std::string& help)
    {
        _options[name] = {true, take};
        _usage += "  " + name + " VALUE: " + help + '\n';
    }

    /// Refuses the first word that is no option, and an option whose value is wrong or missing.
    void read(int argc, char** argv) const
    {
        for (int i = 1; i < argc; ++i) {
            const auto found = _options.find(argv[i]);
            if (found == _options.end() || (found->second.hasValue && ++i == argc)
                || !found->second.take(argv[i]))
                refuse();
        }
    }

    /// Shows how the program is used, and ends it.
    [[noreturn]] void refuse() const
    {
        std::fputs(_usage.c_str(), stderr);
        std::exit(2);
    }

private:
    struct Option {
        bool hasValue;
        std::function<bool(const std::string&)> take;
    };

    std::string _usage;
    std::map<std::string, Option> _options;
};

/// Ends the process: a measurement that did not work out is none.
[[noreturn]] inline void fail(const std::string& reason)
{
    std::fprintf(stderr, "%s\n", reason.c_str());
    std::exit(EXIT_FAILURE);
}
