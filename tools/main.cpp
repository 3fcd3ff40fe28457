// splitmerge: segments an image file and writes the results.
#include <cstdio>
#include <exception>
#include <iostream>
#include <new>

#include "command_line.hpp"
#include "run.hpp"
#include "staging.hpp"

int main(int argc, char** argv) {
  using namespace splitmerge::tool;
  // Progress lines should show up as they happen, also through a pipe.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  install_cleanup_handlers();
  try {
    const parse_result parsed = parse_command_line(argc, argv);
    if (const int* status = std::get_if<int>(&parsed)) return *status;
    return run(std::get<tool_settings>(parsed));
  } catch (const std::bad_alloc&) {
    std::cerr << "splitmerge: out of memory\n";
    return exit_run_failed;
  } catch (const std::exception& e) {
    std::cerr << "splitmerge: " << e.what() << '\n';
    return exit_run_failed;
  }
}
