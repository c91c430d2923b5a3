# SPDX-License-Identifier: Apache-2.0
#
# Writes OUTPUT, a C++ source with the content of FILES.
set(source "// Made of the files in apps/web/page.\n#include \"apps/web/page_content.h\"\n\n")
string(APPEND source "namespace zav_shm::web {\n\n")
foreach(file IN LISTS FILES)
    file(READ ${file} content)
    get_filename_component(name ${file} NAME)
    string(REPLACE "." "_" name ${name})
    string(APPEND source "extern const std::string_view ${name} = R\"zav(${content})zav\";\n")
endforeach()
string(APPEND source "\n}  // namespace zav_shm::web\n")
file(WRITE ${OUTPUT} "${source}")
