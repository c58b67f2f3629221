// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYKeyFolder.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

// The program "tallyra-keys": says who may send records of a fleet, and who may collect them.

namespace {

struct Arguments {
    std::string folder;
    std::string name;
    std::vector<std::string> servers;
};

std::int64_t Now() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void Init(const Arguments& arguments) {
    CTYKeyFolder(arguments.folder).Init(arguments.servers, Now());
    std::cout << "made the keys of a fleet in " << arguments.folder
              << "; keep its seeds secret, and give resolver.conf to each nats-server\n";
}

void Revoke(const Arguments& arguments) {
    const int revoked = CTYKeyFolder(arguments.folder).Revoke(arguments.name, Now());
    std::cout << "revoked " << revoked << " credentials of " << arguments.name
              << "; give resolver.conf to each nats-server, and let it reload\n";
}

void AddInit(CLI::App& app, Arguments& arguments) {
    CLI::App* pCommand = app.add_subcommand("init", "Make the keys of a new fleet");
    pCommand->add_option("DIR", arguments.folder, "Folder for the keys")->required();
    pCommand->add_option("--servers", arguments.servers,
                         "Also write a configuration for each nats-server, HOST or HOST:PORT");
    pCommand->callback([&arguments] { Init(arguments); });
}

void AddNamed(CLI::App& app, Arguments& arguments, const char* pName, const char* pHelp,
              const std::function<void()>& run) {
    CLI::App* pCommand = app.add_subcommand(pName, pHelp);
    pCommand->add_option("DIR", arguments.folder, "Folder of the keys")->required();
    pCommand->add_option("NAME", arguments.name, "Name of the device or collector")->required();
    pCommand->callback(run);
}

}  // namespace

int main(int argc, char** argv) try {
    Arguments arguments;
    CLI::App app("Says who may send records of a fleet, and who may collect them.", "tallyra-keys");
    app.set_version_flag("--version", TALLYRA_VERSION);
    app.require_subcommand(1);
    AddInit(app, arguments);
    AddNamed(app, arguments, "device", "Print credentials for a device", [&arguments] {
        std::cout << CTYKeyFolder(arguments.folder).MakeDevice(arguments.name, Now());
    });
    AddNamed(app, arguments, "collector", "Print credentials for a collector", [&arguments] {
        std::cout << CTYKeyFolder(arguments.folder).MakeCollector(arguments.name, Now());
    });
    AddNamed(app, arguments, "revoke", "Revoke all credentials of a device or collector",
             [&arguments] { Revoke(arguments); });
    CLI11_PARSE(app, argc, argv);
    std::cout.flush();
    return std::cout.good() ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception& error) {
    std::cerr << "tallyra-keys: " << error.what() << "\n";
    return EXIT_FAILURE;
}
