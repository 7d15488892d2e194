// card_files.h - the names in the card directory, where the processes of a card meet.
//
// A socket P has a lock file P.lock, held with flock for as long as the process lives that bound P.
#pragma once

#include <cstddef>

constexpr const char *CARD_DIR_VARIABLE = "CARD_DIR"; // of the environment
constexpr const char *CARD_DIR_DEFAULT = "/run/card"; // without it
constexpr std::size_t CARD_DIR_PATH_MAX = 64;         // bytes; a longer path leaves a socket's address no room

constexpr const char *CARD_CONF_FILE = "card.conf";
constexpr const char *IFDB_FILE = "interfaces";
constexpr const char *WIRED_FILE = "mem/wired";
constexpr const char *IXP_FILES[] = {"mem/ixp1", "mem/ixp2"};
constexpr const char *PROVIDER_SUFFIX = ".provider"; // behind a memory's name: the socket of who provides it
constexpr const char *SUPERVISOR_SOCKET = "scp/supervisor";
constexpr const char *LOCK_SUFFIX = ".lock";

// Folders; what is in them is named by a number in decimal, in rpc/names by a procedure.
constexpr const char *MTS_FOLDER = "mts", *RPC_FOLDER = "rpc", *HISTORY_FOLDER = "history";
constexpr const char *HISTORY_ERRORS_SUFFIX = ".errors";
constexpr const char *RPC_NAMES_FOLDER = "rpc/names"; // links "../<endpoint>"
constexpr const char *CARD_FOLDERS[] = {"mem", MTS_FOLDER, RPC_FOLDER, RPC_NAMES_FOLDER, HISTORY_FOLDER, "scp"};
