// SPDX-License-Identifier: Apache-2.0
//
// Read by the strict reader of the JSON library and not by the one under test.
#include "fuzz/reply_rules.h"

#include <memory>

#include "control/control_protocol.h"
#include "fuzz/fuzz_target.h"

namespace zav_shm::fuzz {

namespace {

namespace field = control::field;
namespace command = control::command;
namespace status = control::status;

Json::Value read_strictly(const std::string& text) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    const bool read = reader->parse(text.data(), text.data() + text.size(), &root, &errors);
    require(read && root.isObject(), "a reply is a JSON object", text);
    return root;
}

void require_text(const Json::Value& reply, const char* name, const std::string& text) {
    require(reply[name].isString(), "a field of a reply is there and a string",
            name + (" in " + text));
}

}  // namespace

Json::Value require_valid_reply(const Reply& reply) {
    const std::string& text = reply.text;
    require(reply.type > 0, "a reply is addressed to a process", text);
    require(text.size() <= control_text_bytes, "a reply fits into a record", text);
    Json::Value root = read_strictly(text);
    require_text(root, field::command, text);
    require_text(root, field::status, text);
    const std::string of = root[field::command].asString();
    const bool registers = of == command::register_end;
    const bool pairs = of == command::pair_source;
    const bool queries = of == command::query_shm;
    require(registers || pairs || queries || of == command::deregister_end,
            "a reply names a command that has replies", text);
    const std::string word = root[field::status].asString();
    if (word != status::success) {
        require(word == (pairs || queries ? status::invalid_name : status::fail),
                "a refusal has its command's status word", text);
        require_text(root, field::reason, text);
    } else if (registers || (pairs && root.size() > 2)) {  // pairing with nobody names no channel
        for (const char* const name :
             {field::shm_path, field::sem_path_src, field::sem_path_dst, field::sem_path_exist}) {
            require_text(root, name, text);
        }
    } else if (queries) {
        require(root[field::channel].isInt() && root[field::stream].isInt() &&
                    root[field::page_size].size() == root[field::stream].asUInt(),
                "a query is answered with as many page sizes as streams", text);
    }
    return root;
}

}  // namespace zav_shm::fuzz
