# The README's main example is the text of the example's source.
get_filename_component(root ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)
file(READ ${root}/README.md readme)
file(READ ${root}/examples/count_own_io/main.cpp example)
string(FIND "${readme}" "```cpp\n${example}```\n" place)
if(place EQUAL -1)
    message(FATAL_ERROR "README.md does not show examples/count_own_io/main.cpp as it is")
endif()
