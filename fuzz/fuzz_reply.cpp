// SPDX-License-Identifier: Apache-2.0
//
// Texts that a client may find on the reply queue, through every getter of the fields' reader.
#include <array>
#include <string>
#include <string_view>

#include "control/control_protocol.h"
#include "fuzz/fuzz_target.h"

namespace {

using namespace zav_shm;
using fuzz::require;
namespace field = control::field;

constexpr std::array names{field::command,
                           field::type,
                           field::name,
                           field::pair_name,
                           field::channel,
                           field::stream,
                           field::pid,
                           field::enable,
                           field::status,
                           field::reason,
                           field::shm_path,
                           field::root_path,
                           field::page_size,
                           field::sem_path_src,
                           field::sem_path_dst,
                           field::sem_path_exist,
                           ""};

// All texts of `fields`, as an object.
Json::Value texts_of(const control::Fields& fields) {
    Json::Value object(Json::objectValue);
    for (const char* const name : names) {
        object[name] = fields.text(name);
    }
    return object;
}

void require_consistent(const control::Fields& fields, const char* name, std::string_view text) {
    const auto numbers = fields.numbers(name);
    require(numbers.size() <= text.size(), "an array has no more elements than the text bytes",
            text);
    require(numbers.empty() || (!fields.is_text(name) && fields.text(name).empty()),
            "an array is no text", text);
    require(!fields.is_text(name) || (fields.number(name) == 0 && !fields.flag(name)),
            "a text is no number and no flag", text);
    require(fields.number(name) == 0 || fields.flag(name), "a number other than 0 is a set flag",
            text);
}

// Both styles read back as what was written. Bytes that are no UTF-8 are replaced by the first
// writing, so only what was written once can be compared.
void require_same_after_writing(const control::Fields& fields) {
    const std::string tabs = control::written_with_tabs(texts_of(fields));
    const std::string line = control::written_on_one_line(texts_of(control::Fields(tabs)));
    require(control::written_with_tabs(texts_of(control::Fields(line))) == tabs,
            "what was written is read as the same", tabs);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::silence_standard_output();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(fuzz::text_of(data, size));
    const control::Fields fields(text);
    for (const char* const name : names) {
        require_consistent(fields, name, text);
    }
    require_same_after_writing(fields);
    return 0;
}
