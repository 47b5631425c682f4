// kalctl-man-page TEMPLATE OUTPUT: fills kalctl's man page (scdoc) with the
// global options, the commands and their options from the same tables
// `kalctl --help` prints, so the two never disagree. Run by the build.
//
// The template's lines "%GLOBAL_OPTIONS%", "%COMMANDS%" and "%EPILOGUE%" are
// replaced; every other line is copied as it is.

#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "kalctl/cli.h"

using namespace kal::kalctl;

namespace {

// Text as scdoc shows it literally: *, _ and \ would start formatting.
std::string escaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\\' || c == '*' || c == '_')
            out += '\\';
        out += c;
    }
    return out;
}

// A line of running text: also a leading - or . would start a list.
std::string escaped_line(const std::string& line) {
    const bool list_mark = !line.empty() && (line[0] == '-' || line[0] == '.');
    return (list_mark ? "\\" : "") + escaped(line);
}

// "--token T" as a term: the option bold, its argument underlined.
std::string option_term(const OptionDescription& o) {
    std::string term = "*" + escaped(o.name) + "*";
    if (o.arg)
        term += " _" + escaped(o.arg) + "_";
    return term;
}

// A help text written for an 80-column terminal as scdoc paragraphs at
// `indent` tabs: consecutive lines flow into one paragraph, lines indented
// by spaces (examples) stay as they are in a literal block.
std::string paragraphs(const std::string& text, int indent) {
    const std::string tabs(indent, '\t');
    std::string out;
    bool literal = false;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const bool example = line.rfind("  ", 0) == 0;
        if (example != literal) {
            out += literal ? tabs + "```\n" : "\n" + tabs + "```\n";
            if (literal)
                out += "\n";
            literal = example;
        }
        out += tabs + (example ? line.substr(2) : escaped_line(line)) + "\n";
    }
    if (literal)
        out += tabs + "```\n";
    return out;
}

std::string option_list(const std::vector<OptionDescription>& options, int indent) {
    const std::string tabs(indent, '\t');
    std::string out;
    for (const auto& o : options)
        out += "\n" + tabs + option_term(o) + "\n" + tabs + "\t" + escaped_line(o.help) + ".\n";
    return out;
}

std::string command_list() {
    std::string out;
    for (const auto& desc : commands()) {
        out += "\n*" + escaped(desc.name) + "*";
        if (*desc.usage)
            out += " " + escaped(desc.usage);
        if (!desc.options.empty())
            out += " [_options_]";
        out += "\n\t" + escaped(summary_sentence(desc)) + "\n";
        if (*desc.details)
            out += "\n" + paragraphs(desc.details, 1);
        out += option_list(desc.options, 1);
    }
    return out;
}

std::string epilogue() {
    std::string out;
    std::istringstream lines(global_help_epilogue());
    for (std::string line; std::getline(lines, line);)
        out += escaped_line(line) + "\n";
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: kalctl-man-page TEMPLATE OUTPUT\n";
        return 2;
    }
    std::ifstream in(argv[1]);
    if (!in) {
        std::cerr << "kalctl-man-page: cannot read " << argv[1] << "\n";
        return 1;
    }
    std::ostringstream page;
    for (std::string line; std::getline(in, line);) {
        if (line == "%GLOBAL_OPTIONS%")
            page << option_list(global_options(), 0);
        else if (line == "%COMMANDS%")
            page << command_list();
        else if (line == "%EPILOGUE%")
            page << epilogue();
        else
            page << line << "\n";
    }
    std::ofstream out(argv[2], std::ios::trunc);
    out << page.str();
    if (!out.flush()) {
        std::cerr << "kalctl-man-page: cannot write " << argv[2] << "\n";
        return 1;
    }
    return 0;
}
