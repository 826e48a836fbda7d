# corvalen_embed_section(<target> <section> <file>)
#
# Embeds a file as a section of the target's executable. The section is loaded and marked as
# retained, so strip and --gc-sections keep it.
function(corvalen_embed_section target section file)
  cmake_path(ABSOLUTE_PATH file BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${target}${section}.cpp)
  file(CONFIGURE OUTPUT ${source} @ONLY CONTENT [[
// Generated: the bytes of a file as a section of the executable.
asm(".pushsection @section@,\"aR\",%progbits\n"
    ".incbin \"@file@\"\n"
    ".popsection\n");
]])
  set_source_files_properties(${source} PROPERTIES OBJECT_DEPENDS ${file})
  target_sources(${target} PRIVATE ${source})
endfunction()

# corvalen_embed_lists(<target>)
#
# Embeds the information list and the service-manager list, which the program reads.
function(corvalen_embed_lists target)
  set(info ${CMAKE_CURRENT_BINARY_DIR}/${target}-Info.plist)
  configure_file(${PROJECT_SOURCE_DIR}/resources/Info.plist.in ${info} @ONLY)
  corvalen_embed_section(${target} __info_plist ${info})
  corvalen_embed_section(${target} __launchd_plist ${PROJECT_SOURCE_DIR}/resources/launchd.plist)
endfunction()
