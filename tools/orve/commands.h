// The sub-commands of `orve`. Each has a definition (options and help text) and a runner that
// returns the process exit code; problems are thrown as tool_error and reported by main.
#pragma once

#include "cli.h"

namespace orve::tool {

const command_def& demo_def();
int run_demo(const parsed_args& args);

const command_def& build_def();
int run_build(const parsed_args& args);

const command_def& query_def();
int run_query(const parsed_args& args);

const command_def& inspect_def();
int run_inspect(const parsed_args& args);

const command_def& tune_def();
int run_tune(const parsed_args& args);

}  // namespace orve::tool
