#include "qvutil/commands/pids.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "qvutil/output/json.h"
#include "qvutil/output/table.h"
#include "qvutil/output/text.h"
#include "qvutil/processes/members.h"

namespace quorvane::tool {
namespace {

std::vector<Member> members_of(Console& console, const PidsOptions& options) {
  struct stat status {};
  if (stat(options.path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode)) {
    return members_of_set(console, options.path, options.prune);
  }
  std::vector<Member> members = members_of_files(options.path, options.prune);
  if (members.empty() && !S_ISDIR(status.st_mode)) {
    throw Failure("no set, no directory and no pid files: " + shown(options.path));
  }
  return members;
}

const char* state_of(const Member& member) {
  if (member.is_removed) {
    return "removed";
  }
  return member.lives() ? "lives" : "dead";
}

std::string since(const Member& member) {
  const bool is_known = member.lives() && member.process->start != 0;
  return is_known ? time_text(static_cast<std::int64_t>(member.process->start)) : "";
}

std::string note(const Member& member) {
  return member.is_reused ? "the id is now that of " + shown(member.process->program) : "";
}

void print_json_lines(Console& console, const std::vector<Member>& members) {
  for (const Member& member : members) {
    Json line{{"pid", member.pid}, {"state", state_of(member)}};
    if (member.lives()) {
      line["since"] = since(member);
      line["program"] = json_of_bytes(member.process->program);
    }
    if (member.is_reused) {
      line["reused_by"] = json_of_bytes(member.process->program);
    }
    print_json(console, line);
  }
}

void print_table(Console& console, const std::vector<Member>& members) {
  Table table({{"PID", Table::Align::right}, {"STATE"}, {"SINCE"}, {"PROGRAM"}});
  for (const Member& member : members) {
    table.row({std::to_string(member.pid),
               {state_of(member), member.lives() ? Colour::green : Colour::red},
               since(member),
               member.lives() ? shown(member.process->program) : note(member)});
  }
  table.print(console);
}

}  // namespace

Outcome pids(Console& console, const PidsOptions& options) {
  const std::vector<Member> members = members_of(console, options);
  if (console.json()) {
    print_json_lines(console, members);
  } else {
    print_table(console, members);
  }
  const bool has_dead = std::any_of(members.begin(), members.end(), [](const Member& member) {
    return !member.lives() && !member.is_removed;
  });
  return has_dead ? Outcome::found : Outcome::fine;
}

}  // namespace quorvane::tool
