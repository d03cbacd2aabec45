#include "host/help.h"

namespace {

constexpr char status_of_a_run[] = R"(
Exit status: 0 when all went well, also after SIGINT and SIGTERM; 1 when a file
was refused, the plug-in or a thread could not be had, nobody takes the output,
or with --once a program failed or did not get its value; 2 for wrong usage.)";

constexpr char status_of_a_table[] = R"(
Exit status: 0 when all went well, also after SIGINT and SIGTERM; 1 when a file
was refused, the plug-in or a thread could not be had, or nobody takes the
output; 2 for wrong usage.)";

constexpr char status_of_a_question[] = R"(
Exit status: 0 when all went well; 1 when a file was refused, the plug-in could
not be loaded, or nobody takes the output; 2 for wrong usage.)";

}  // namespace

std::string footer_of(command what) {
  switch (what) {
    case command::run:
      return std::string(R"(Examples:
  dachost run --once gateway.conf           what this machine publishes, then end
  dachost run --json gateway.conf           one JSON object a line, for programs
  dachost run --exec ./update gateway.conf  starts ./update for every value
)") + status_of_a_run;
    case command::top:
      return std::string(R"(Keys: q ends; arrows, PgUp, PgDn, Home and End scroll.

Examples:
  dachost top /etc/ip6dns/*.conf            on the screen, drawn once a second
  dachost top --once gateway.conf           one table, then end
  dachost top *.conf >>tables               a table a second into a file
)") + status_of_a_table;
    case command::check:
      return std::string(R"(Example:
  dachost check /etc/ip6dns/*.conf          one line a file: ok, or what is wrong
)") + status_of_a_question;
    case command::tags:
      return std::string(R"(Example:
  dachost tags gateway.conf | cut -f 2      the host name that the file gives
)") + status_of_a_question;
    case command::info:
      break;
  }
  return std::string(R"(Example:
  dachost info gateway.conf                 {"status":"stop","host":"gateway.example"}
)") + status_of_a_question;
}

std::string footer() {
  return R"(Examples:
  dachost check gateway.conf                does the file do?
  dachost run gateway.conf                  every value as it arrives
  dachost run --help                        the options of a sub-command

Exit status: 0 when all went well, 1 when not, 2 for wrong usage. The manual is
dachost(1).)";
}
