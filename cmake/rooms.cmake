# A room is a folder of the module. Who may use whom is said here and nowhere else: a room's headers
# are found only by targets that name it, so that an include against the arrows does not build.
#
#   vakro_room(NAME SOURCES file... [GIVES room...] [USES target...])
#
# GIVES names what the room's own headers include: whoever uses the room sees that, too. USES names
# what only its sources need. Makes NAME_headers, for those who include, and NAME_objects, for the
# libraries and programs that the room becomes part of.
function(vakro_room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;GIVES;USES" ${ARGN})
  set(view ${PROJECT_BINARY_DIR}/rooms/${name}) # holds nothing but the room
  file(MAKE_DIRECTORY ${view})
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${view}/${name} SYMBOLIC)

  add_library(${name}_headers INTERFACE)
  target_include_directories(${name}_headers INTERFACE ${view})
  target_link_libraries(${name}_headers INTERFACE ${ROOM_GIVES})
  if(ROOM_SOURCES)
    add_library(${name}_objects OBJECT ${ROOM_SOURCES})
    target_link_libraries(${name}_objects PRIVATE ${name}_headers ${ROOM_USES})
  endif()
endfunction()
