// The command line of vmsim.
#ifndef VMSIM_OPTIONS_H
#define VMSIM_OPTIONS_H

#include "blockFormat.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vmsim {

// One `--set [SLOT:]FIELD[.INDEX]=VALUE` or `--fill [SLOT:]FIELD=CHAR:COUNT`.
struct FieldSetting {
    int slot;  // -1: every slot in use
    std::string field;
    size_t index;
    std::string value;
};

struct Options {
    bool instance = false;  // --type instance|process
    int id = -1;            // --id, instance clusters
    Width width = Width::Bit64;
    int slots = 1;                 // per-VM areas laid out
    std::vector<int> live;         // slots with a live child (instance clusters)
    bool live_given = false;
    std::vector<int> dead;         // slots in use whose pid names an ended process
    // Header values as published; unset ones follow from the layout.
    bool eyecatcher_given = false;
    uint32_t eyecatcher = 0;
    bool version_given = false;
    uint32_t version = 0;
    bool max_vm_nr_given = false;
    int32_t max_vm_nr = 0;
    bool ica_size_given = false;
    int64_t ica_size = 0;
    bool ca_size_given = false;
    int64_t ca_size = 0;
    bool block_size_given = false;
    uint64_t block_size = 0;
    bool attach_count_given = false;
    int32_t attach_count = 0;
    unsigned mode = 0700;
    uint64_t board_size = 0;        // --board: bytes of each VM's monitoring board; 0 for none
    bool profiling_server = false;  // --profiling-server: each VM listens on a socket file
    bool flap = false;              // --flap: a process cluster that cuts and restores its file
    std::vector<FieldSetting> vm_settings;        // --set / --fill
    std::vector<FieldSetting> instance_settings;  // --ica-set
};

// Parses argv; on a mistake returns false with a message in `error`.
bool parse_options(int argc, char** argv, Options* options, std::string* error);
const char* usage();

}  // namespace vmsim

#endif
