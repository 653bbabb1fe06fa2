#include "tools/harkwell/HelpDocuments.h"

#include <CLI/CLI.hpp>
#include <sstream>

namespace harkwell::cli {
namespace {

std::vector<std::string> SplitChoices(const std::string& value) {
  std::vector<std::string> words;
  if (value.find('|') == std::string::npos) return words;
  std::size_t start = 0;
  for (std::size_t bar; (bar = value.find('|', start)) != std::string::npos; start = bar + 1) {
    words.push_back(value.substr(start, bar - start));
  }
  words.push_back(value.substr(start));
  return words;
}

OptionDoc DescribeOption(const CLI::Option& option) {
  OptionDoc doc;
  doc.positional = option.get_lnames().empty() && option.get_snames().empty();
  if (doc.positional) {
    doc.names.push_back(option.get_name());
  } else {
    for (const auto& name : option.get_snames()) doc.names.push_back("-" + name);
    for (const auto& name : option.get_lnames()) doc.names.push_back("--" + name);
  }
  if (doc.positional || option.get_type_size_max() > 0) doc.value = option.get_type_name();
  doc.choices = SplitChoices(doc.value);
  doc.description = option.get_description();
  return doc;
}

std::vector<OptionDoc> DescribeOptions(const CLI::App& app) {
  std::vector<OptionDoc> options;
  for (const CLI::Option* option : app.get_options()) options.push_back(DescribeOption(*option));
  return options;
}

std::string Joined(const std::vector<std::string>& words, const std::string& separator) {
  std::string text;
  for (const auto& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

// ---- roff ----

// Text for a roff line: backslashes doubled as roff wants them, and a line that would start with
// a control character made literal.
std::string Roff(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\') {
      out += "\\e";
    } else {
      out += c;
    }
  }
  if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out.insert(0, "\\&");
  return out;
}

// An option's name in bold, its hyphens as real minus signs so it can be searched and copied.
std::string RoffName(const std::string& name) {
  std::string out = "\\fB";
  for (const char c : name) out += c == '-' ? std::string("\\-") : std::string(1, c);
  return out + "\\fR";
}

std::string RoffOptionHead(const OptionDoc& option) {
  if (option.positional)
    return "\\fI" + Roff(option.value.empty() ? option.names[0] : option.value) + "\\fR";
  std::string head;
  for (const auto& name : option.names) head += (head.empty() ? "" : ", ") + RoffName(name);
  if (option.takesValue()) head += " \\fI" + Roff(option.value) + "\\fR";
  return head;
}

void RoffOptions(std::ostringstream& out, const std::vector<OptionDoc>& options) {
  for (const auto& option : options) {
    out << ".TP\n" << RoffOptionHead(option) << "\n" << Roff(option.description) << "\n";
  }
}

std::string RoffSynopsis(const CommandDoc& command) {
  std::string line = "\\fBharkwell\\fR [\\fB\\-v\\fR] \\fB" + command.name + "\\fR";
  for (const auto& option : command.options) {
    if (option.positional) line += " \\fI" + Roff(option.value) + "\\fR";
  }
  return line + " [\\fIOPTIONS\\fR]";
}

// ---- shells ----

// `text` inside single quotes for bash and zsh.
std::string ShellQuoted(const std::string& text) {
  std::string out = "'";
  for (const char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

// A description inside zsh's _arguments brackets, where ] and : end the text early.
std::string ZshDescription(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '[' || c == ']' || c == ':' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

// `text` inside single quotes for fish, which escapes only \ and ' there.
std::string FishQuoted(const std::string& text) {
  std::string out = "'";
  for (const char c : text) {
    if (c == '\\' || c == '\'') out += '\\';
    out += c;
  }
  return out + "'";
}

std::vector<std::string> OptionWords(const std::vector<OptionDoc>& options) {
  std::vector<std::string> words;
  for (const auto& option : options) {
    if (option.positional) continue;
    for (const auto& name : option.names) words.push_back(name);
  }
  return words;
}

std::string CommandNames(const ProgramDoc& program, const std::string& separator) {
  std::vector<std::string> names;
  for (const auto& command : program.commands) names.push_back(command.name);
  return Joined(names, separator);
}

std::string ZshArgumentSpec(const OptionDoc& option) {
  const std::string description = "[" + ZshDescription(option.description) + "]";
  std::string valueSpec;
  if (option.takesValue()) {
    std::string action = " ";
    if (!option.choices.empty()) action = "(" + Joined(option.choices, " ") + ")";
    if (option.completesFile()) action = "_files";
    if (option.completesFolder()) action = "_files -/";
    std::string label = option.value;
    for (auto& c : label) c = c == '|' ? ',' : c;
    valueSpec = ":" + ZshDescription(label) + ":" + action;
  }
  if (option.names.size() == 1) {
    const std::string name = option.names[0] + (option.takesValue() ? "=" : "");
    return ShellQuoted(name + description + valueSpec);
  }
  // "(-v --verbose)"{-v,--verbose}"[...]": either spelling, and not both.
  std::string spellings;
  for (const auto& name : option.names) spellings += (spellings.empty() ? "" : ",") + name;
  return ShellQuoted("(" + Joined(option.names, " ") + ")") + "{" + spellings + "}" +
         ShellQuoted(description + valueSpec);
}

}  // namespace

ProgramDoc DescribeProgram(const CLI::App& app) {
  ProgramDoc program{app.get_name(), app.get_description(), DescribeOptions(app), {}};
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    program.commands.push_back(
        CommandDoc{command->get_name(), command->get_description(), DescribeOptions(*command)});
  }
  return program;
}

std::string ManPage(const ProgramDoc& program, std::string_view version) {
  std::ostringstream out;
  out << ".\\\" Generated from harkwell's command line; edit tools/harkwell/CommandLine.cpp or\n"
      << ".\\\" tools/harkwell/HelpDocuments.cpp instead.\n"
      << ".TH HARKWELL 1 \"\" \"harkwell " << version << "\" \"User Commands\"\n"
      << ".SH NAME\nharkwell \\- list and watch the computer's microphones, speakers and cameras\n"
      << ".SH SYNOPSIS\n";
  for (const auto& command : program.commands) out << RoffSynopsis(command) << "\n.br\n";
  out << "\\fBharkwell\\fR \\fB\\-\\-help\\fR | \\fB\\-\\-version\\fR\n"
      << ".SH DESCRIPTION\n"
      << Roff(program.description) << "\n"
      << ".PP\nDevices come from PulseAudio (PipeWire serves it too) and V4L2 by default, or from "
         "a scenario file of simulated devices and timed changes. Results go to standard output; "
         "messages and the library's log lines go to standard error, each prefixed with "
         "\\(lqharkwell: \\(rq. Texts from devices are printed with control characters, C1 "
         "controls, direction overrides and invalid UTF\\-8 escaped.\n"
      << ".SH OPTIONS\n";
  RoffOptions(out, program.options);
  out << ".SH COMMANDS\n";
  for (const auto& command : program.commands) {
    out << ".SS " << command.name << "\n" << Roff(command.description) << ".\n";
    RoffOptions(out, command.options);
  }
  out << ".SH \"EXIT STATUS\"\n"
      << ".TP\n0\nSuccess.\n"
      << ".TP\n1\nThe work could not be done: a scenario that does not load, an unknown device "
         "for \\fBhog\\fR, exclusive access refused, no model identifier.\n"
      << ".TP\n2\nThe command line does not parse, or its options do not go together.\n"
      << ".TP\n3\n\\fBlist\\fR or \\fBhog\\fR: a device source could not be reached (no sound "
         "server answered), so the devices seen would not be all there are. \\fBwatch\\fR goes "
         "on; the devices appear when the server starts.\n"
      << ".SH ENVIRONMENT\n"
      << ".TP\n\\fBPULSE_SERVER\\fR\nThe PulseAudio server to ask, as libpulse reads it.\n"
      << ".TP\n\\fBNO_COLOR\\fR\nWhen set, no colour even on a terminal.\n"
      << ".SH EXAMPLES\n"
      << ".nf\nharkwell list\nharkwell watch \\-\\-json \\-\\-duration 60\n"
         "harkwell watch \\-\\-scenario examples/scenario.json\n"
         "harkwell hog on 100 \\-\\-hold\n.fi\n";
  return out.str();
}

std::string BashCompletion(const ProgramDoc& program) {
  std::ostringstream out;
  out << "# bash completion for harkwell. Generated from its command line; edit\n"
      << "# tools/harkwell/CommandLine.cpp or tools/harkwell/HelpDocuments.cpp instead.\n"
      << "_harkwell() {\n"
      << "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
      << "  local command= i word positionals=0 options= takes_value=\n"
      << "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
      << "    case ${COMP_WORDS[i]} in\n"
      << "      " << CommandNames(program, "|") << ") command=${COMP_WORDS[i]}; break ;;\n"
      << "    esac\n"
      << "  done\n"
      << "  case $command in\n";
  for (const auto& command : program.commands) {
    out << "    " << command.name << ")\n";
    out << "      options=" << ShellQuoted(Joined(OptionWords(command.options), " ")) << "\n";
    std::vector<std::string> valued;
    for (const auto& option : command.options) {
      if (option.positional || !option.takesValue()) continue;
      for (const auto& name : option.names) valued.push_back(name);
    }
    out << "      takes_value=" << ShellQuoted(" " + Joined(valued, " ") + " ") << "\n";
    out << "      case $prev in\n";
    for (const auto& option : command.options) {
      if (option.positional || !option.takesValue()) continue;
      out << "        " << Joined(option.names, "|") << ")\n";
      if (!option.choices.empty()) {
        out << "          COMPREPLY=($(compgen -W " << ShellQuoted(Joined(option.choices, " "))
            << " -- \"$cur\"))\n";
      } else if (option.completesFile()) {
        out << "          COMPREPLY=($(compgen -f -- \"$cur\"))\n";
      } else if (option.completesFolder()) {
        out << "          COMPREPLY=($(compgen -d -- \"$cur\"))\n";
      }
      out << "          return ;;\n";
    }
    out << "      esac\n";
    // A positional with choices (hog's action) is offered while it has not been given.
    for (const auto& option : command.options) {
      if (!option.positional || option.choices.empty()) continue;
      out << "      for ((word = i + 1; word < COMP_CWORD; word++)); do\n"
          << "        case ${COMP_WORDS[word]} in\n"
          << "          -*) [[ $takes_value == *\" ${COMP_WORDS[word]} \"* ]] && ((word++)) ;;\n"
          << "          *) ((positionals++)) ;;\n"
          << "        esac\n"
          << "      done\n"
          << "      if [[ $positionals == 0 && $cur != -* ]]; then\n"
          << "        COMPREPLY=($(compgen -W " << ShellQuoted(Joined(option.choices, " "))
          << " -- \"$cur\"))\n"
          << "        return\n"
          << "      fi\n";
      break;
    }
    out << "      ;;\n";
  }
  out << "    *)\n"
      << "      options=" << ShellQuoted(Joined(OptionWords(program.options), " ")) << "\n"
      << "      if [[ $cur != -* ]]; then\n"
      << "        COMPREPLY=($(compgen -W " << ShellQuoted(CommandNames(program, " "))
      << " -- \"$cur\"))\n"
      << "        return\n"
      << "      fi\n"
      << "      ;;\n"
      << "  esac\n"
      << "  [[ $cur == -* ]] && COMPREPLY=($(compgen -W \"$options\" -- \"$cur\"))\n"
      << "}\n"
      << "complete -F _harkwell harkwell\n";
  return out.str();
}

std::string ZshCompletion(const ProgramDoc& program) {
  std::ostringstream out;
  out << "#compdef harkwell\n"
      << "# zsh completion for harkwell. Generated from its command line; edit\n"
      << "# tools/harkwell/CommandLine.cpp or tools/harkwell/HelpDocuments.cpp instead.\n"
      << "_harkwell() {\n"
      << "  local context state state_descr line\n"
      << "  typeset -A opt_args\n"
      << "  _arguments -C \\\n";
  for (const auto& option : program.options) out << "    " << ZshArgumentSpec(option) << " \\\n";
  out << "    '1:command:->command' \\\n"
      << "    '*::argument:->argument'\n"
      << "  case $state in\n"
      << "    command)\n"
      << "      local -a commands\n"
      << "      commands=(\n";
  for (const auto& command : program.commands) {
    std::string description;
    for (const char c : command.description) {
      if (c == ':') description += '\\';
      description += c;
    }
    out << "        " << ShellQuoted(command.name + ":" + description) << "\n";
  }
  out << "      )\n"
      << "      _describe -t commands command commands\n"
      << "      ;;\n"
      << "    argument)\n"
      << "      case $line[1] in\n";
  for (const auto& command : program.commands) {
    out << "        " << command.name << ")\n"
        << "          _arguments";
    std::size_t position = 0;
    for (const auto& option : command.options) {
      if (option.positional) {
        ++position;
        const std::string action =
            option.choices.empty() ? " " : "(" + Joined(option.choices, " ") + ")";
        out << " \\\n            "
            << ShellQuoted(std::to_string(position) + ":" + option.names[0] + ":" + action);
      } else {
        out << " \\\n            " << ZshArgumentSpec(option);
      }
    }
    out << "\n          ;;\n";
  }
  out << "      esac\n"
      << "      ;;\n"
      << "  esac\n"
      << "}\n"
      << "_harkwell \"$@\"\n";
  return out.str();
}

std::string FishCompletion(const ProgramDoc& program) {
  std::ostringstream out;
  out << "# fish completion for harkwell. Generated from its command line; edit\n"
      << "# tools/harkwell/CommandLine.cpp or tools/harkwell/HelpDocuments.cpp instead.\n"
      << "complete -c harkwell -f\n";
  const auto optionLine = [&out](const std::string& condition, const OptionDoc& option) {
    out << "complete -c harkwell -n " << FishQuoted(condition);
    for (const auto& name : option.names) {
      if (name.rfind("--", 0) == 0) {
        out << " -l " << name.substr(2);
      } else {
        out << " -s " << name.substr(1);
      }
    }
    if (!option.choices.empty()) {
      out << " -x -a " << FishQuoted(Joined(option.choices, " "));
    } else if (option.completesFile()) {
      out << " -r -F";
    } else if (option.completesFolder()) {
      out << " -x -a " << FishQuoted("(__fish_complete_directories)");
    } else if (option.takesValue()) {
      out << " -x";
    }
    out << " -d " << FishQuoted(option.description) << "\n";
  };
  for (const auto& option : program.options) optionLine("__fish_use_subcommand", option);
  for (const auto& command : program.commands) {
    out << "complete -c harkwell -n __fish_use_subcommand -a " << command.name << " -d "
        << FishQuoted(command.description) << "\n";
  }
  for (const auto& command : program.commands) {
    const std::string inCommand = "__fish_seen_subcommand_from " + command.name;
    for (const auto& option : command.options) {
      if (!option.positional) {
        optionLine(inCommand, option);
      } else if (!option.choices.empty()) {
        out << "complete -c harkwell -n "
            << FishQuoted(inCommand + "; and not __fish_seen_subcommand_from " +
                          Joined(option.choices, " "))
            << " -a " << FishQuoted(Joined(option.choices, " ")) << " -d "
            << FishQuoted(option.description) << "\n";
      }
    }
  }
  return out.str();
}

}  // namespace harkwell::cli
