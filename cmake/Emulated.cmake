# Writes <build tree>/emulated/TARGET, a script that runs the program of that name under the emulator, and sets the
# variable to the emulator's command line, which the program's path is put behind.
#
# The program is told that the script is its name: one that starts itself again, as a death test does, then starts the
# script, and the system need not know how to run programs of another processor. The emulator is started by the
# program's name too, so that the system lists the process under it.
function(halvek_emulated target variable)
  set(script ${PROJECT_BINARY_DIR}/emulated/${target})
  set(link ${PROJECT_BINARY_DIR}/emulated/processes/${target})
  set(command ${CMAKE_CROSSCOMPILING_EMULATOR} -0 ${script})
  set(emulator ${command})
  list(FILTER emulator INCLUDE REGEX /qemu-)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/emulated/processes)
  file(CREATE_LINK ${emulator} ${link} SYMBOLIC)
  list(TRANSFORM command REPLACE "^${emulator}$" ${link})
  string(REPLACE ";" "' '" words "'${command}'")
  file(CONFIGURE OUTPUT ${script} @ONLY
    CONTENT "#!/bin/sh\nexec @words@ '@CMAKE_RUNTIME_OUTPUT_DIRECTORY@/@target@' \"$@\"\n")
  file(CHMOD ${script} PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  set(${variable} ${command} PARENT_SCOPE)
endfunction()
