# cmake -DOUTPUT=FILE.cpp "-DFILES=member|path;..." -P EmbedFiles.cmake
#
# Writes a source that defines the members of report::PageFiles, each with a file's bytes.
set(source "#include \"host/report/PageFiles.h\"\n\nnamespace report {\n\nnamespace {\n\n")
set(members "")
foreach(entry IN LISTS FILES)
    string(REGEX MATCH "^([a-z]+)\\|(.*)$" matched "${entry}")
    set(name ${CMAKE_MATCH_1})
    file(READ ${CMAKE_MATCH_2} bytes HEX)
    string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
    string(APPEND source "const char ${name}Bytes[] = {${bytes}};\n")
    string(APPEND members "const std::string_view PageFiles::${name}(${name}Bytes, sizeof(${name}Bytes));\n")
endforeach()
file(WRITE ${OUTPUT} "${source}\n} // namespace\n\n${members}\n} // namespace report\n")
