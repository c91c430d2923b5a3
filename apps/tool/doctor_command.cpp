// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/doctor_command.h"

namespace zav_shm::tool {

namespace {

class Doctor_Command : public Command {
public:
    explicit Doctor_Command(CLI::App& app)
        : Command(app, "doctor", "Check this machine, and say what is wrong and what to do") {
        folder(options_.folder);
        app_.add_option("--config", options_.configuration,
                        "Configuration whose need of room is checked [the running center's]")
            ->check(checked_by(file_mistake))
            ->type_name("FILE");
        seconds("--silence", options_.silence, 0, "How long a producer may publish nothing")
            ->default_str("5");
        auto* verbose = app_.add_flag("--verbose", options_.verbose, "Also show what is well");
        app_.add_flag("--json", options_.json, "Write one JSON object")->excludes(verbose);
        app_.add_flag("--quiet", options_.quiet,
                      "Drop the lines that the libraries print; otherwise they go to standard "
                      "error");
        app_.footer(
            "Exit status: 0 all well, 1 warnings, 2 usage, 3 the center does not run or hangs,\n"
            "5 the report cannot be written, 6 other errors.");
    }

    Options options() const override { return options_; }

private:
    Doctor_Options options_;
};

}  // namespace

std::unique_ptr<Command> doctor_command(CLI::App& app) {
    return std::make_unique<Doctor_Command>(app);
}

}  // namespace zav_shm::tool
