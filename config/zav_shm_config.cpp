// SPDX-License-Identifier: Apache-2.0
#include "config/zav_shm_config.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <optional>

#include "config/document_warnings.h"
#include "config/field_reader.h"
#include "config/text_file.h"

namespace {

using Name_Record = _SHM_DIST_RECV_CONFIG_;
using zav_shm::Field_Reader;

// Four times what a file of 4096 names takes. It bounds the memory of the parsed document, too: up
// to 60 bytes for each byte of the file.
constexpr std::size_t file_bytes_max = std::size_t{1024} * 1024;

constexpr const char* default_root_path = "/dev/shm";
constexpr const char* default_shm_path = "shm";
constexpr const char* default_sem_path = "sem";
constexpr int default_stream_count = 2;
constexpr int default_page_size = 1024 * 1024;

struct Default_Name {
    const char* name;
    int channel;
};
constexpr Default_Name default_distributors[] = {{"CAM_LOOP", 9}, {"CAM_REC", 4}, {"PLAYBACK", 4}};
// "RECODER" is what clients register as.
constexpr Default_Name default_receivers[] = {
    {"PLAYER", 9}, {"RECODER", 4}, {"REMOTE_LOOP", 9}, {"REMOTE_PLAYBACK", 4}};

template <class Record>
void append(std::vector<Record*>& list, std::unique_ptr<Record> record) {
    list.push_back(record.get());
    record.release();  // only now, since growing the list may throw
}

template <class Record>
void delete_all(std::vector<Record*>& list) {
    for (Record* record : list) {
        const std::unique_ptr<Record> owner(record);
    }
    list.clear();
}

template <class Record>
std::span<Record* const> first(const std::vector<Record*>& list, int count) {
    return std::span(list).first(
        std::min(list.size(), static_cast<std::size_t>(std::max(count, 0))));
}

template <std::size_t n>
int append_names(std::vector<Name_Record*>& list, const Default_Name (&names)[n]) {
    for (const auto& [name, channel] : names) {
        auto record = std::make_unique<Name_Record>();
        zav_shm::store_text(record->name, name);
        record->channel = channel;
        append(list, std::move(record));
    }
    return static_cast<int>(n);
}

std::string position_in(const std::string& text, std::size_t offset) {
    const std::string before = text.substr(0, offset);
    const auto line = std::count(before.begin(), before.end(), '\n') + 1;
    const std::size_t column = before.size() - (before.rfind('\n') + 1) + 1;  // npos + 1 is 0
    return zav_shm::position_name(line, static_cast<long>(column));
}

// Editors that put a mark in front of a text do not show it. Empty when there is none.
std::string mark_in_front_of(const std::string& text) {
    if (text.rfind("\xEF\xBB\xBF", 0) == 0) {
        return "the text begins with a byte order mark; save it as UTF-8 without one";
    }
    if (text.rfind("\xFF\xFE", 0) == 0 || text.rfind("\xFE\xFF", 0) == 0) {
        return "the text is UTF-16; save it as UTF-8 without a byte order mark";
    }
    return {};
}

bool read_streams(Field_Reader& fields, const Json::Value& element, const std::string& where,
                  int greatest, std::vector<int>& streams) {
    const Json::Value* list = fields.required(element, where, "stream");
    if (list == nullptr) {
        return false;
    }
    if (!list->isArray()) {
        return fields.fail(where + ".stream is not an array");
    }
    for (Json::ArrayIndex i = 0; i < list->size(); ++i) {
        const std::string place = zav_shm::element_name((where + ".stream").c_str(), i);
        int number = 0;
        if (!fields.integer((*list)[i], place, number)) {
            return false;
        }
        if (number < 0 || number > greatest) {
            return fields.fail(place + ": " + std::to_string(number) + " is not from 0 to " +
                               std::to_string(greatest));
        }
        streams.push_back(number);
    }
    return true;
}

void print_names(const char* side, std::span<Name_Record* const> records) {
    for (const Name_Record* record : records) {
        if (record == nullptr) {
            continue;
        }
        std::printf("%s Name %.31s, Channel %d\n", side, record->name, record->channel);
        std::printf("Supprt Stream : ");
        for (const int number : record->stream) {
            std::printf("%d ", number);
        }
        std::puts("\n");
    }
}

}  // namespace

ZAV_SHM_CONFIG::~ZAV_SHM_CONFIG() { clear_config(); }

int ZAV_SHM_CONFIG::parse_config(const char* path) {
    error_.clear();
    std::string text;
    switch (zav_shm::read_text_file(path, file_bytes_max, text, error_)) {
        case zav_shm::Read_Result::not_opened:
            std::printf("Failed to open file %s\n", path == nullptr ? "" : path);
            return 0;
        case zav_shm::Read_Result::not_read:
            return 0;
        case zav_shm::Read_Result::complete:
            break;
    }
    if (!parse_config_with_json(text)) {
        return 0;
    }
    if (verify_config() == 0) {
        clear_config();
        return 0;
    }
    return 1;
}

bool ZAV_SHM_CONFIG::parse_config_with_json(const std::string& text) {
    error_.clear();
    document_warnings_.clear();
    try {
        if (reader.parse(text, root, true)) {
            document_warnings_ = zav_shm::document_warnings(text, root);
            return true;
        }
        error_ = mark_in_front_of(text);
        if (!error_.empty()) {
            return false;
        }
        for (const auto& mistake : reader.getStructuredErrors()) {
            error_ = position_in(text, static_cast<std::size_t>(mistake.offset_start)) + ": " +
                     mistake.message;
            break;  // the others mostly follow from the first
        }
        return false;
    } catch (const Json::RuntimeError&) {
        error_ = "nested deeper than 1000 levels";
    } catch (const std::bad_alloc&) {
        error_ = "not enough memory for a text of " + std::to_string(text.size()) + " bytes";
    } catch (const std::exception& refused) {
        error_ = refused.what();
    }
    root = Json::Value();  // the reader left it half built
    return false;
}

int ZAV_SHM_CONFIG::verify_config() {
    using Section = int (ZAV_SHM_CONFIG::*)();
    static constexpr struct {
        Section parse;
        const char* failure;
    } sections[] = {{&ZAV_SHM_CONFIG::parse_system_config, "Parse System Fail"},
                    {&ZAV_SHM_CONFIG::parse_stream_config, "Parse Stream Fail"},
                    {&ZAV_SHM_CONFIG::parse_dist_config, "Parse Distributor Fail"},
                    {&ZAV_SHM_CONFIG::parse_recv_config, "Parse Receiver Fail"}};
    for (const auto& section : sections) {
        if ((this->*section.parse)() == 0) {
            std::puts(section.failure);
            return 0;
        }
    }
    return 1;
}

int ZAV_SHM_CONFIG::parse_system_config() {
    error_.clear();
    Field_Reader fields(error_, remarks_);
    const std::string where = "System";
    const Json::Value& system = fields.optional_object(root, "System");
    fields.path(system, where, "ROOT_PATH", default_root_path, root_path);
    fields.path(system, where, "SHM_PATH", default_shm_path, shm_path);
    fields.path(system, where, "SEM_PATH", default_sem_path, sem_path);
    kick_idle = fields.flag(system, where, "kick_idle");
    return 1;
}

int ZAV_SHM_CONFIG::parse_stream_config() {
    error_.clear();
    Field_Reader fields(error_, remarks_);
    const Json::Value* section = fields.section(root, "Stream");
    if (section == nullptr) {
        return 0;
    }
    stream_num = static_cast<int>(section->size());
    for (Json::ArrayIndex i = 0; i < section->size(); ++i) {
        const Json::Value& element = (*section)[i];
        const std::string where = zav_shm::element_name("Stream", i);
        auto record = std::make_unique<_SHM_STREAM_CONFIG_>();
        if (!fields.integer(element, where, "index", record->index) ||
            !fields.integer(element, where, "page_size", record->page_size)) {
            return 0;
        }
        record->history_bytes = fields.optional_integer(element, where, "history_bytes");
        record->group = fields.optional_text(element, where, "group");
        append(stream_configs, std::move(record));
    }
    return 1;
}

int ZAV_SHM_CONFIG::parse_dist_config() {
    const std::size_t before = distributor_configs.size();
    if (parse_dist_recv_config("Distributor", distributor_configs, distributor_num) == 0) {
        return 0;
    }
    Field_Reader fields(error_, remarks_);
    for (std::size_t i = before; i < distributor_configs.size(); ++i) {
        const auto position = static_cast<Json::ArrayIndex>(i - before);
        const Json::Value& element = root["Distributor"][position];
        const std::string where = zav_shm::element_name("Distributor", position);
        distributor_configs[i]->group = fields.optional_text(element, where, "group");
        distributor_configs[i]->producers = fields.optional_text(element, where, "producers");
    }
    return 1;
}

int ZAV_SHM_CONFIG::parse_recv_config() {
    return parse_dist_recv_config("Receiver", receiver_configs, receiver_num);
}

int ZAV_SHM_CONFIG::parse_dist_recv_config(const char* key, std::vector<Name_Record*>& list,
                                           int& count) {
    error_.clear();
    Field_Reader fields(error_, remarks_);
    const Json::Value* section = fields.section(root, key);
    if (section == nullptr) {
        return 0;
    }
    count = static_cast<int>(section->size());
    for (Json::ArrayIndex i = 0; i < section->size(); ++i) {
        const Json::Value& element = (*section)[i];
        const std::string where = zav_shm::element_name(key, i);
        auto record = std::make_unique<Name_Record>();
        if (!fields.name(element, where, "name", record->name) ||
            !fields.integer(element, where, "channel", record->channel) ||
            !read_streams(fields, element, where, stream_num, record->stream)) {
            return 0;
        }
        append(list, std::move(record));
    }
    return 1;
}

void ZAV_SHM_CONFIG::clear_config() {
    for (auto* field : {&root_path, &shm_path, &sem_path}) {
        zav_shm::store_text(*field, "");
    }
    stream_num = 0;
    distributor_num = 0;
    receiver_num = 0;
    kick_idle = false;
    delete_all(stream_configs);
    delete_all(distributor_configs);
    delete_all(receiver_configs);
    remarks_.clear();
}

void ZAV_SHM_CONFIG::print_config() {
    std::printf("Root Path %.31s\nShm Path %.31s\nSem Path %.31s\n", root_path, shm_path, sem_path);
    std::printf("Stream Num %d\nDistributor Num %d\nReceiver Num %d\n", stream_num, distributor_num,
                receiver_num);
    for (const auto* stream : streams()) {
        if (stream != nullptr) {
            std::printf("Stream Index %d, Page Size %d\n", stream->index, stream->page_size);
        }
    }
    std::printf("\n");
    print_names("Distributor", distributors());
    print_names("Receiver", receivers());
}

void ZAV_SHM_CONFIG::load_default() {
    clear_config();
    error_.clear();
    document_warnings_.clear();
    zav_shm::store_text(root_path, default_root_path);
    zav_shm::store_text(shm_path, default_shm_path);
    zav_shm::store_text(sem_path, default_sem_path);
    for (int i = 0; i < default_stream_count; ++i) {
        append(stream_configs,
               std::make_unique<_SHM_STREAM_CONFIG_>(_SHM_STREAM_CONFIG_{i, default_page_size}));
    }
    stream_num = default_stream_count;
    distributor_num = append_names(distributor_configs, default_distributors);
    receiver_num = append_names(receiver_configs, default_receivers);
}

std::span<_SHM_STREAM_CONFIG_* const> ZAV_SHM_CONFIG::streams() const {
    return first(stream_configs, stream_num);
}

std::span<_SHM_DIST_RECV_CONFIG_* const> ZAV_SHM_CONFIG::distributors() const {
    return first(distributor_configs, distributor_num);
}

std::span<_SHM_DIST_RECV_CONFIG_* const> ZAV_SHM_CONFIG::receivers() const {
    return first(receiver_configs, receiver_num);
}
