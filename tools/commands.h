// The subcommands of `quorvel`. Each gets the arguments after its own name
// (argv[0] is the subcommand's name) and returns the process exit status.
#pragma once

int cmdList(int argc, char **argv);
int cmdTray(int argc, char **argv);
int cmdMount(int argc, char **argv);
int cmdUnmount(int argc, char **argv);
int cmdDemo(int argc, char **argv);
int cmdInstallService(int argc, char **argv);
int cmdWatch(int argc, char **argv);
