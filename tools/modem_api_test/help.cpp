#include "help.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>

#include "text.h"

namespace pelmar::cli {

namespace {

// --- the command line's parts ---

const CLI::App& root_of(const CLI::App& app) {
  return app.get_parent() == nullptr ? app : root_of(*app.get_parent());
}

std::vector<const CLI::App*> commands_of(const CLI::App& app) {
  return app.get_subcommands({});
}

std::vector<const CLI::Option*> options_of(const CLI::App& app, bool is_positional) {
  const CLI::Option* const help = app.get_parent() == nullptr ? nullptr : app.get_help_ptr();
  return app.get_options([=](const CLI::Option* o) { return o->get_positional() == is_positional && o != help; });
}

// Also "{on,off}", the words that alone are taken. Empty for an option without a value.
std::string type_of(const CLI::Option& option) {
  const std::string type = option.get_type_size() == 0 ? "" : option.get_type_name();
  return type.substr(type.find('{') < type.size() ? type.find('{') : 0);
}

bool is_repeatable(const CLI::Option& option) {
  return option.get_items_expected_max() > 1;
}

// --- the text ---
//
// Lines of four kinds: "Heading:", "  name  text", "  literal", and paragraphs.

std::string name_of(const CLI::Option& option) {
  const std::string type = type_of(option);
  return option.get_name(option.get_positional(), !option.get_positional()) + (type.empty() ? "" : " " + type) +
         (is_repeatable(option) ? "..." : "");
}

std::string entries_of(const CLI::App& app, bool is_positional) {
  std::string lines;
  for (const CLI::Option* option : options_of(app, is_positional)) {
    lines += "  " + name_of(*option) + "  " + option->get_description();
    if (const std::string value = option->get_default_str(); !value.empty()) lines += " (default " + value + ")";
    if (option->get_required() && !is_positional) lines += "; required";
    for (const CLI::Option* other : option->get_excludes()) lines += "; not with " + other->get_name();
    lines += "\n";
  }
  return lines;
}

std::string usage_of(const CLI::App& app) {
  std::string usage = path_of(app) + " [OPTIONS]";
  for (const CLI::Option* option : options_of(app, true)) {
    const std::string name = option->get_name(true) + (is_repeatable(*option) ? "..." : "");
    usage += option->get_required() ? " " + name : " [" + name + "]";
  }
  return commands_of(app).empty() ? usage : usage + " COMMAND";
}

std::string with_heading(const char* heading, const std::string& lines) {
  return lines.empty() ? "" : std::string(heading) + ":\n" + lines;
}

// A group of commands has the first example of each.
std::string text_of(const CLI::App& app) {
  std::string summary = app.get_description();
  summary[0] = static_cast<char>(toupper(summary[0]));
  std::string commands;
  std::string examples;
  for (const CLI::App* command : commands_of(app)) {
    commands += "  " + command->get_name() + "  " + command->get_description() + "\n";
    const std::string notes = command->get_footer();
    const size_t begin = notes.find("\n  ");
    if (begin != notes.npos) examples += notes.substr(begin + 1, notes.find('\n', begin + 1) - begin);
  }
  return summary + ".\n" + with_heading("Arguments", entries_of(app, true)) +
         with_heading("Options", entries_of(app, false)) + with_heading("Commands", commands) + app.get_footer() +
         (app.get_parent() == nullptr ? "" : with_heading("Examples", examples));
}

std::string common_options(const CLI::App& root) {
  std::string names;
  for (const CLI::Option* option : options_of(root, false)) names += (names.empty() ? "" : ", ") + name_of(*option);
  return "Common options: " + names + ". '" + root.get_name() + " --help' describes them.\n";
}

struct Line {
  enum class Kind { kHeading, kEntry, kLiteral, kParagraph };

  explicit Line(const std::string& line) : text(line) {
    if (!line.starts_with("  ")) {
      kind = line.ends_with(':') ? Kind::kHeading : Kind::kParagraph;
      return;
    }
    const size_t gap = std::min(line.find("  ", 2), line.size());
    kind = gap < line.size() ? Kind::kEntry : Kind::kLiteral;
    name = line.substr(2, gap - 2);
    text = line.substr(std::min(gap + 2, line.size()));
  }

  Kind kind;
  std::string name;  // of an entry or a literal
  std::string text;
};

// A line of roff in which no character is markup.
std::string roff(const std::string& text) {
  std::string line = text.starts_with('.') || text.starts_with('\'') ? "\\&" : "";
  for (const char character : text) {
    if (character == '-' || character == '\\') line += '\\';
    line += character == '\\' ? 'e' : character;
  }
  return line + "\n";
}

// `heading`: the macro of a heading.
std::string roff_text(const std::string& text, const std::string& heading) {
  std::string page;
  const char* gap = "";
  std::istringstream lines(text);
  for (std::string each; std::getline(lines, each);) {
    const Line line(each);
    if (line.kind == Line::Kind::kHeading) page += heading + roff(line.text.substr(0, line.text.size() - 1));
    if (line.kind == Line::Kind::kEntry) page += ".TP\n.B " + roff(line.name) + roff(line.text);
    if (line.kind == Line::Kind::kLiteral) page += ".nf\n" + roff("    " + line.name) + ".fi\n";
    if (line.kind == Line::Kind::kParagraph) page += gap + roff(line.text);
    gap = line.kind == Line::Kind::kHeading ? "" : ".PP\n";
  }
  return page;
}

std::string roff_commands(const CLI::App& group) {
  std::string page;
  for (const CLI::App* command : commands_of(group)) {
    const std::string usage = usage_of(*command).substr(root_of(group).get_name().size() + 1);
    page += commands_of(*command).empty() ? ".SS " + roff(usage) + roff_text(text_of(*command), ".PP\n.I ")
                                          : roff_commands(*command);
  }
  return page;
}

// --- completion ---

std::string value_type(const CLI::App& app, const std::string& name) {
  const CLI::Option* const option = app.get_option_no_throw(name);
  if (option != nullptr) return type_of(*option);
  return app.get_parent() == nullptr ? "" : value_type(*app.get_parent(), name);
}

constexpr const char* kBashScript = R"(# bash completion for modem_api_test: the program itself lists the words.
_modem_api_test() {
  local IFS=$'\n' current=${COMP_WORDS[COMP_CWORD]}
  if [[ $current == @* ]]; then # a file with data
    COMPREPLY=($(compgen -P @ -f -- "${current#@}"))
  else
    COMPREPLY=($("$1" --complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null))
  fi
}
complete -o default -F _modem_api_test modem_api_test
)";

constexpr const char* kZshScript = R"zsh(#compdef modem_api_test
# zsh completion for modem_api_test: the program itself lists the words.
local -a matches
if ! compset -P @; then # else a file with data
  matches=(${(f)"$("$words[1]" --complete "${(@)words[2,CURRENT]}" 2>/dev/null)"})
fi
if (($#matches)); then compadd -a matches; else _files; fi
)zsh";

}  // namespace

std::string path_of(const CLI::App& app) {
  return app.get_parent() == nullptr ? app.get_name() : path_of(*app.get_parent()) + " " + app.get_name();
}

std::string help_text(const CLI::App& app) {
  constexpr size_t kWidth = 80;
  constexpr size_t kColumn = 24;  // where the text of an entry begins
  std::string page;
  std::istringstream lines("Usage: " + usage_of(app) + "\n" + text_of(app) +
                           (app.get_parent() == nullptr ? "" : common_options(root_of(app))));
  for (std::string each; std::getline(lines, each);) {
    const Line line(each);
    const bool is_indented = line.kind == Line::Kind::kEntry || line.kind == Line::Kind::kLiteral;
    if (!is_indented && !page.empty()) page += '\n';
    std::string rest = is_indented ? left_aligned("  " + line.name, kColumn - 2) + "  " + line.text : line.text;
    rest.erase(rest.find_last_not_of(' ') + 1);
    const size_t indent = is_indented ? kColumn : 0;
    for (size_t cut; rest.size() > kWidth && (cut = rest.rfind(' ', kWidth)) > indent && cut < rest.size();) {
      page += rest.substr(0, cut) + "\n";
      rest = std::string(indent, ' ') + rest.substr(cut + 1);
    }
    page += rest + "\n";
  }
  return page;
}

std::string manual_page(const CLI::App& root, const std::string& version, const std::string& date) {
  const std::string name = root.get_name();
  std::string text = text_of(root);
  const size_t begin = text.find("Commands:\n") + std::string("Commands:\n").size();
  size_t end = begin;
  while (text.compare(end, 2, "  ") == 0) end = text.find('\n', end) + 1;
  return ".TH " + name + " 1 " + date + " " + roff("\"" + name + " " + version + "\"") + ".SH NAME\n" +
         roff(name + " - client of the cellular modem") + ".SH SYNOPSIS\n.B " + roff(usage_of(root) + " ...") +
         ".SH DESCRIPTION\n" + roff_text(text.substr(0, begin), ".SH ") + roff_commands(root) +
         roff_text(text.substr(end), ".SH ") + ".SH SEE ALSO\n.BR modem_sim (1)\n";
}

std::vector<std::string> complete(const CLI::App& root, const CompletionWords& words, std::span<char* const> line) {
  const std::string current = line.empty() ? "" : line.back();
  const CLI::App* app = &root;
  std::string type;  // of the value that comes next
  size_t arguments = 0;
  for (const std::string word : line.first(line.size() - !line.empty())) {
    const auto commands = commands_of(*app);
    const auto is_named = [&](const CLI::App* command) { return command->get_name() == word; };
    const auto command = std::find_if(commands.begin(), commands.end(), is_named);
    if (!type.empty()) {
      type.clear();
    } else if (word.starts_with('-')) {
      type = value_type(*app, word);
    } else if (command != commands.end()) {
      app = *command;
    } else {
      ++arguments;
    }
  }
  std::vector<std::string> matches;
  const auto positionals = options_of(*app, true);
  if (type.empty() && current.starts_with('-')) {
    for (const CLI::App* each = app; each != nullptr; each = each->get_parent()) {
      for (const CLI::Option* option : options_of(*each, false)) matches.push_back("--" + option->get_lnames().front());
    }
  } else if (type.empty() && arguments == 0) {
    for (const CLI::App* command : commands_of(*app)) matches.push_back(command->get_name());
  }
  if (matches.empty() && type.empty() && !positionals.empty()) {
    arguments = std::min(arguments, positionals.size() - (is_repeatable(*positionals.back()) ? 1 : 0));
    if (arguments < positionals.size()) type = type_of(*positionals[arguments]);
  }
  if (type.starts_with('{')) {
    matches = CLI::detail::split(type.substr(1, type.size() - 2), ',');
  } else if (const auto listed = words.find(type); listed != words.end()) {
    matches = listed->second;
  }
  std::erase_if(matches, [&](const std::string& match) { return !match.starts_with(current); });
  return matches;
}

std::string completion_script(const std::string& shell) {
  return shell == "zsh" ? kZshScript : kBashScript;
}

}  // namespace pelmar::cli
