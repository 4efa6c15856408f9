#include "options.h"

#include "vmServices.h"

#include <cstdlib>

namespace vmsim {

const char* usage() {
    return "usage: vmsim [--type process|instance] [--id N] [--width 32|64] [--slots N]\n"
           "             [--live LIST|none] [--dead LIST] [--eyecatcher X] [--version X] [--max-vm-nr N]\n"
           "             [--ica-size N] [--ca-size N] [--block-size N] [--attach-count N] [--mode OCTAL]\n"
           "             [--set [SLOT:]FIELD[.INDEX]=VALUE]... [--fill [SLOT:]FIELD=CHAR:COUNT]...\n"
           "             [--ica-set FIELD[.INDEX]=VALUE]... [--board SIZE] [--profiling-server]\n"
           "             [--flap]\n"
           "See tools/vmsim/README.md.\n";
}

static bool parse_list(const std::string& text, std::vector<int>* out) {
    out->clear();
    if (text == "none" || text.empty()) return true;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        int64_t value = 0;
        if (!parse_int64(item, &value) || value < 0 || value > 1000000) return false;
        out->push_back(static_cast<int>(value));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return true;
}

// "[SLOT:]FIELD[.INDEX]=VALUE"
static bool parse_setting(const std::string& text, bool with_slot, FieldSetting* setting) {
    size_t equals = text.find('=');
    if (equals == std::string::npos) return false;
    std::string name = text.substr(0, equals);
    setting->value = text.substr(equals + 1);
    setting->slot = -1;
    setting->index = 0;
    size_t colon = name.find(':');
    if (with_slot && colon != std::string::npos) {
        int64_t slot = 0;
        if (!parse_int64(name.substr(0, colon), &slot) || slot < 0 || slot > 1000000) return false;
        setting->slot = static_cast<int>(slot);
        name = name.substr(colon + 1);
    }
    size_t dot = name.find('.');
    if (dot != std::string::npos) {
        int64_t index = 0;
        if (!parse_int64(name.substr(dot + 1), &index) || index < 0 || index > 64) return false;
        setting->index = static_cast<size_t>(index);
        name = name.substr(0, dot);
    }
    setting->field = name;
    return !name.empty();
}

// "FIELD=CHAR:COUNT" becomes the text of COUNT copies of CHAR.
static bool expand_fill(FieldSetting* setting) {
    const std::string& value = setting->value;
    if (value.size() < 3 || value[1] != ':') return false;
    int64_t count = 0;
    if (!parse_int64(value.substr(2), &count) || count < 0 || count > 1 << 20) return false;
    setting->value = std::string(static_cast<size_t>(count), value[0]);
    return true;
}

bool parse_options(int argc, char** argv, Options* options, std::string* error) {
    for (int i = 1; i < argc; i++) {
        std::string name = argv[i];
        if (name == "--help" || name == "-h") {
            *error = "";
            return false;
        }
        if (name == "--profiling-server") {  // the two options without a value
            options->profiling_server = true;
            continue;
        }
        if (name == "--flap") {
            options->flap = true;
            continue;
        }
        if (i + 1 >= argc) {
            *error = "missing value for " + name;
            return false;
        }
        std::string value = argv[++i];
        int64_t number = 0;
        bool numeric = parse_int64(value, &number);
        if (name == "--type") {
            if (value != "process" && value != "instance") { *error = "bad --type"; return false; }
            options->instance = value == "instance";
        } else if (name == "--id") {
            if (!numeric || number < 0 || number > 20000) { *error = "bad --id"; return false; }
            options->id = static_cast<int>(number);
        } else if (name == "--width") {
            if (value != "32" && value != "64") { *error = "bad --width"; return false; }
            options->width = value == "64" ? Width::Bit64 : Width::Bit32;
        } else if (name == "--slots") {
            if (!numeric || number < 0 || number > 1024) { *error = "bad --slots"; return false; }
            options->slots = static_cast<int>(number);
        } else if (name == "--live") {
            if (!parse_list(value, &options->live)) { *error = "bad --live"; return false; }
            options->live_given = true;
        } else if (name == "--dead") {
            if (!parse_list(value, &options->dead)) { *error = "bad --dead"; return false; }
        } else if (name == "--eyecatcher" && numeric) {
            options->eyecatcher_given = true;
            options->eyecatcher = static_cast<uint32_t>(number);
        } else if (name == "--version" && numeric) {
            options->version_given = true;
            options->version = static_cast<uint32_t>(number);
        } else if (name == "--max-vm-nr" && numeric) {
            options->max_vm_nr_given = true;
            options->max_vm_nr = static_cast<int32_t>(number);
        } else if (name == "--ica-size" && numeric) {
            options->ica_size_given = true;
            options->ica_size = number;
        } else if (name == "--ca-size" && numeric) {
            options->ca_size_given = true;
            options->ca_size = number;
        } else if (name == "--block-size" && numeric && number >= 0) {
            options->block_size_given = true;
            options->block_size = static_cast<uint64_t>(number);
        } else if (name == "--attach-count" && numeric) {
            options->attach_count_given = true;
            options->attach_count = static_cast<int32_t>(number);
        } else if (name == "--mode") {
            char* end = nullptr;
            unsigned long mode = strtoul(value.c_str(), &end, 8);
            if (*end != '\0' || mode > 0777) { *error = "bad --mode"; return false; }
            options->mode = static_cast<unsigned>(mode);
        } else if (name == "--board") {
            // At least the documented header; at most 64 MiB, so a typo cannot fill /tmp.
            if (!numeric || number < BOARD_MIN_SIZE || number > (64 << 20)) { *error = "bad --board"; return false; }
            options->board_size = static_cast<uint64_t>(number);
        } else if (name == "--set" || name == "--fill") {
            FieldSetting setting;
            if (!parse_setting(value, true, &setting) || (name == "--fill" && !expand_fill(&setting))) {
                *error = "bad " + name + " " + value;
                return false;
            }
            options->vm_settings.push_back(setting);
        } else if (name == "--ica-set") {
            FieldSetting setting;
            if (!parse_setting(value, false, &setting)) { *error = "bad --ica-set " + value; return false; }
            options->instance_settings.push_back(setting);
        } else {
            *error = "unknown or malformed option " + name + " " + value;
            return false;
        }
    }
    if (options->instance && options->id < 0) {
        *error = "an instance cluster needs --id";
        return false;
    }
    if (options->flap && (options->instance || options->board_size > 0 || options->profiling_server)) {
        *error = "--flap is for a process cluster without board or server";
        return false;
    }
    return true;
}

}  // namespace vmsim
