#include "qvutil/cli/run.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "qvutil/cli/commands.h"
#include "qvutil/output/suggest.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

constexpr int kFailed = static_cast<int>(Outcome::failed);

void add_commands(CLI::App& app, Action& action) {
  add_reading(app, action);
  add_mending(app, action);
  add_statistics(app, action);
  add_events(app, action);
  add_pids(app, action);
}

std::string page_of(CLI::App& app) {
  std::string page = "Usage: qvutil COMMAND [OPTION]... [ARGUMENT]...\n\n";
  for (const CLI::App* command : app.get_subcommands({})) {
    std::string name = "  " + command->get_name();
    name.resize(11, ' ');
    page += name + command->get_description() + "\n";
  }
  return page +
         "\nWith --json, each line is one JSON object. Status: 0 fine, 1 found something,\n"
         "2 couldn't. `qvutil COMMAND --help` lists options; qvutil(1) describes all.\n";
}

// The options and commands that could have stood in the place of `word`.
std::vector<std::string> candidates_for(const std::string& word, CLI::App& command) {
  std::vector<std::string> names;
  if (word.rfind('-', 0) != 0) {
    for (const CLI::App* child : command.get_subcommands({})) {
      names.push_back(child->get_name());
    }
    return names;
  }
  for (const CLI::App* app = &command; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      for (const std::string& name : option->get_lnames()) {
        names.push_back("--" + name);
      }
    }
  }
  return names;
}

// "qvutil", or "qvutil pids".
std::string name_of(const CLI::App& command) {
  const CLI::App* parent = command.get_parent();
  return (parent == nullptr ? "" : name_of(*parent) + " ") + command.get_name();
}

// A word that no option and no command takes.
int complain_of(const std::string& word, CLI::App& command) {
  const bool is_option = word.rfind('-', 0) == 0;
  const std::string text = word.substr(0, word.find('='));
  std::cerr << name_of(command) << ": unknown "
            << (is_option                         ? "option "
                : command.get_parent() == nullptr ? "command "
                                                  : "argument ")
            << shown(text);
  const std::string meant = suggestion(text, candidates_for(text, command));
  if (!meant.empty()) {
    std::cerr << "; did you mean " << meant << "?";
  }
  std::cerr << "\n";
  return kFailed;
}

// The page of a command; without a name, that of all.
Outcome print_help(Console& console, CLI::App& app, const std::string& name) {
  if (name.empty()) {
    console.out() << page_of(app);
    return Outcome::fine;
  }
  for (CLI::App* command : app.get_subcommands({})) {
    if (command->get_name() == name) {
      console.out() << command->help("qvutil");
      return Outcome::fine;
    }
  }
  complain_of(name, app);
  return Outcome::failed;
}

void add_help(CLI::App& app, Action& action) {
  CLI::App* const help = app.add_subcommand("help", "This page, or that of a command");
  const auto name = std::make_shared<std::string>();
  help->add_option("COMMAND", *name, "The command");
  help->callback([&app, &action, name] {
    action = [&app, name](Console& console) { return print_help(console, app, *name); };
  });
}

CLI::App& chosen_command(CLI::App& app) {
  const std::vector<CLI::App*> chosen = app.get_subcommands();
  return chosen.empty() ? app : *chosen.front();
}

int complain(const CLI::ParseError& error, CLI::App& app) {
  CLI::App& command = chosen_command(app);
  const std::vector<std::string> surplus = app.remaining(true);
  if (!surplus.empty()) {
    return complain_of(surplus.front(), command);
  }
  std::cerr << name_of(command) << ": " << error.what() << "\nTry `" << name_of(command)
            << " --help`.\n";
  return kFailed;
}

int run_action(const Action& action, bool json) {
  Console console(std::cout, std::cerr, Console::style_of_process(json));
  return static_cast<int>(action(console));
}

// `status`, unless what was printed can't be written. Who has failed has said why.
int flushed(int status) {
  errno = 0;
  if (status == kFailed || std::cout.flush()) {
    return status;
  }
  throw failure_of("can't write to standard output", errno);
}

// Parses the arguments. Returns whether there is a command to run; if not, `status` is that of
// the process.
bool parse(CLI::App& app, int argc, char** argv, int& status) {
  try {
    app.parse(argc, argv);
    return true;
  } catch (const CLI::CallForHelp&) {
    CLI::App& command = chosen_command(app);
    std::cout << (&command == &app ? page_of(app) : command.help("qvutil"));
    status = 0;
  } catch (const CLI::Success& success) {
    status = app.exit(success);
  } catch (const CLI::ParseError& error) {
    status = complain(error, app);
  }
  return false;
}

int run_command(int argc, char** argv) {
  CLI::App app("Looks into what programs with the library leave on disk, and mends it.", "qvutil");
  app.fallthrough();
  app.require_subcommand(0, 1);  // later words are no commands, even if they are named like one
  bool json = false;
  app.add_flag("--json", json, "Print one JSON object a line");
  Action action;
  add_commands(app, action);
  add_help(app, action);
  int status = kFailed;
  if (!parse(app, argc, argv, status)) {
    return status;
  }
  if (!action) {
    std::cerr << page_of(app);
    return kFailed;
  }
  try {
    return run_action(action, json);
  } catch (const std::exception& error) {
    std::cerr << name_of(chosen_command(app)) << ": " << error.what() << "\n";
    return kFailed;
  }
}

}  // namespace

int run(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  std::signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is an error like a full disk
  try {
    return flushed(run_command(argc, argv));
  } catch (const std::exception& error) {
    std::cerr << "qvutil: " << error.what() << "\n";
    return kFailed;
  }
}

}  // namespace quorvane::tool
