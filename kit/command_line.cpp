#include "command_line.h"

#include <err.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

namespace kit {

namespace {

constexpr size_t kColumns = 80;
constexpr size_t kNameColumns = 21;

/** Breaks a text between words. */
std::string wrapped(const std::string& text, size_t columns) {
    std::istringstream words(text);
    std::string result;
    size_t used = 0;
    for (std::string word; words >> word; used += word.size()) {
        if (used > 0 && used + 1 + word.size() > columns) {
            result += '\n';
            used = 0;
        } else if (used > 0) {
            result += ' ';
            ++used;
        }
        result += word;
    }
    return result;
}

/** Lays the help out for 80 columns. */
class NarrowFormatter : public CLI::Formatter {
public:
    NarrowFormatter() { column_width(kNameColumns); }

    std::string make_description(const CLI::App* app) const override {
        return wrapped(app->get_description(), kColumns) + "\n";
    }
    std::string make_option_desc(const CLI::Option* option) const override {
        return wrapped(option->get_description(), kColumns - kNameColumns);
    }
};

}  // namespace

std::optional<int> parseCommandLine(CLI::App& app, int argc, char** argv, int badUsage) {
    const auto narrow = std::make_shared<NarrowFormatter>();
    app.formatter(narrow);
    app.set_version_flag("--version", app.get_name() + " " FDSTREAM_VERSION,
                         "Print the version and exit");
    for (CLI::App* const command : app.get_subcommands({}))
        command->formatter(narrow);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        app.exit(help);
        return finishStandardOutput() ? 0 : badUsage;
    } catch (const CLI::CallForVersion& version) {
        std::cout << version.what() << '\n';
        return finishStandardOutput() ? 0 : badUsage;
    } catch (const CLI::ParseError& error) {
        warnx("%s", error.what());
        warnx("%s --help tells what there is", app.get_name().c_str());
        return badUsage;
    }
    return std::nullopt;
}

bool finishStandardOutput() {
    errno = 0;
    std::cout.flush();
    if (fflush(stdout) == 0 && ferror(stdout) == 0 && std::cout) return true;
    if (errno == 0) errno = EIO;
    warn("standard output cannot be written");
    return false;
}

}  // namespace kit
