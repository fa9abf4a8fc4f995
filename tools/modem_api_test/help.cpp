#include "help.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <regex>
#include <set>

#include "text.h"

namespace pelmar::cli {

namespace {

// --- the command line's parts ---

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
// It has lines of four kinds: "  name  text", "  literal", "Heading:", and paragraphs.

bool is_entry(const std::string& line, std::smatch& name_and_text) {
  static const std::regex pattern("  (.*?\\S)  (.*)");
  return std::regex_match(line, name_and_text, pattern);
}

std::string name_of(const CLI::Option& option) {
  const std::string type = type_of(option);
  return option.get_name(option.get_positional(), !option.get_positional()) + (type.empty() ? "" : " " + type) +
         (is_repeatable(option) ? "..." : "");
}

// The options of the set, in the order of the help.
std::string list_of(const char* title, const CLI::App& app, const std::set<CLI::Option*>& set) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options()) {
    if (set.contains(const_cast<CLI::Option*>(option))) names.push_back(option->get_name());
  }
  return names.empty() ? "" : title + join(names, ", ");
}

std::string entries_of(const CLI::App& app, bool is_positional) {
  std::string lines;
  for (const CLI::Option* option : options_of(app, is_positional)) {
    lines += "  " + name_of(*option) + "  " + option->get_description();
    if (const std::string value = option->get_default_str(); !value.empty()) {
      const bool has_range = lines.ends_with(')');
      if (has_range) lines.back() = ';';
      lines += (has_range ? " default " : " (default ") + value + ")";
    }
    if (option->get_required() && !is_positional) lines += "; required";
    lines += list_of("; needs ", app, option->get_needs()) + list_of("; not with ", app, option->get_excludes());
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

std::string notes_of(const CLI::App& app) {
  std::string notes = app.get_footer();
  if (!commands_of(app).empty() || notes.find("Examples:\n") != notes.npos) return notes;
  return notes + "Examples:\n  " + path_of(app) + "\n  " + path_of(app) + " --json\n";
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
    std::smatch example;
    const std::string notes = notes_of(*command);
    if (std::regex_search(notes, example, std::regex("Examples:\n(  .*\n)"))) examples += example.str(1);
  }
  return summary + ".\n" + with_heading("Arguments", entries_of(app, true)) +
         with_heading("Options", entries_of(app, false)) + with_heading("Commands", commands) + notes_of(app) +
         (app.get_parent() == nullptr ? "" : with_heading("Examples", examples));
}

std::string common_options(const CLI::App& app) {
  if (app.get_parent() != nullptr) return common_options(*app.get_parent());
  const auto name = [](const CLI::Option* option) { return name_of(*option); };
  const std::string names = CLI::detail::join(options_of(app, false), name, ", ");
  return "Common options: " + names + ". '" + app.get_name() + " --help' describes them.\n";
}

// --- the manual page ---

// A line in which no character is markup.
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
  std::smatch entry;
  for (const std::string& line : CLI::detail::split(text, '\n')) {
    const bool is_heading = line.ends_with(':') && !line.starts_with(' ');
    if (is_entry(line, entry)) {
      page += ".TP\n.B " + roff(entry[1]) + roff(entry[2]);
    } else if (line.starts_with(' ')) {
      page += ".nf\n" + roff("  " + line) + ".fi\n";
    } else {
      page += is_heading ? heading + roff(line.substr(0, line.size() - 1)) : gap + roff(line);
    }
    gap = is_heading ? "" : ".PP\n";
  }
  return page;
}

std::string roff_commands(const CLI::App& group) {
  std::string page;
  for (const CLI::App* command : commands_of(group)) {
    const bool is_group = !commands_of(*command).empty();
    page += is_group ? roff_commands(*command)
                     : ".SS " + roff(usage_of(*command)) + roff_text(text_of(*command), ".PP\n.I ");
  }
  return page;
}

// --- completion ---

constexpr const char* kBashScript = R"(# bash completion for modem_api_test: the program itself lists the words.
_modem_api_test() {
  local IFS=$'\n'
  COMPREPLY=($("$1" --complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null))
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
  const std::string text =
      "Usage: " + usage_of(app) + "\n" + text_of(app) + (app.get_parent() == nullptr ? "" : common_options(app));
  std::smatch entry;
  for (std::string line : CLI::detail::split(text, '\n')) {
    const size_t indent = line.starts_with(' ') ? kColumn : 0;
    if (indent == 0 && !page.empty()) page += '\n';
    if (is_entry(line, entry)) {
      line = left_aligned("  " + entry.str(1), kColumn - 2) + "  " + entry.str(2);
    }
    for (size_t cut; line.size() > kWidth && (cut = line.rfind(' ', kWidth)) > indent && cut < line.size();) {
      page += line.substr(0, cut) + "\n";
      line = std::string(indent, ' ') + line.substr(cut + 1);
    }
    page += line + "\n";
  }
  return page;
}

std::string manual_page(const CLI::App& root, const std::string& version, const std::string& date) {
  const std::string& name = root.get_name();
  return ".TH " + name + " 1 " + date + " " + roff("\"" + name + " " + version + "\"") + ".SH NAME\n" +
         roff(name + " - " + root.get_description()) + ".SH SYNOPSIS\n.B " + roff(usage_of(root) + " ...") +
         ".SH DESCRIPTION\n" + roff_text(text_of(root), ".SH ") + ".SH Each command\n" + roff_commands(root) +
         ".SH SEE ALSO\n.BR modem_sim (1)\n";
}

std::vector<std::string> complete(const CLI::App& root, const CompletionWords& words, std::span<char* const> line) {
  if (line.empty()) return {};
  std::vector<const CLI::App*> apps = {&root};  // and the groups and the command that the line names
  const CLI::Option* value_of = nullptr;        // the option whose value comes next
  size_t arguments = 0;
  for (const std::string word : line.first(line.size() - 1)) {
    const auto commands = commands_of(*apps.back());
    const auto command = std::find_if(commands.begin(), commands.end(), [&](auto c) { return c->get_name() == word; });
    if (value_of != nullptr) {
      value_of = nullptr;
    } else if (word.starts_with('-')) {
      for (const CLI::App* app : apps) {
        const CLI::Option* const option = app->get_option_no_throw(word);
        if (option != nullptr && !type_of(*option).empty()) value_of = option;
      }
    } else if (command != commands.end()) {
      apps.push_back(*command);
    } else {
      ++arguments;
    }
  }
  const std::string current = line.back();
  std::vector<std::string> matches;
  const auto positionals = options_of(*apps.back(), true);
  if (value_of == nullptr && current.starts_with('-')) {
    for (const CLI::App* app : apps) {
      for (const CLI::Option* option : options_of(*app, false)) matches.push_back("--" + option->get_lnames().front());
    }
  } else if (value_of == nullptr && !positionals.empty()) {
    if (is_repeatable(*positionals.back())) arguments = std::min(arguments, positionals.size() - 1);
    if (arguments < positionals.size()) value_of = positionals[arguments];
  } else if (value_of == nullptr) {
    for (const CLI::App* command : commands_of(*apps.back())) matches.push_back(command->get_name());
  }
  if (value_of != nullptr) {
    const std::string type = type_of(*value_of);
    const auto listed = words.find(type);
    if (type.starts_with('{')) matches = CLI::detail::split(type.substr(1, type.size() - 2), ',');
    if (listed != words.end()) matches = listed->second;
    // The word may be a list with commas, of which the last part is completed.
    const size_t begin = value_of->get_positional() ? 0 : current.rfind(',') + 1;
    for (std::string& match : matches) match.insert(0, current, 0, begin);
  }
  std::erase_if(matches, [&](const std::string& match) { return !match.starts_with(current); });
  return matches;
}

std::string completion_script(const std::string& shell) {
  return shell == "zsh" ? kZshScript : kBashScript;
}

}  // namespace pelmar::cli
