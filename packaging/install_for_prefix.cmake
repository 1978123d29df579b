# At the installation: what depends on the prefix of that moment. packaging/CMakeLists.txt sets the variables.
set(prefix "${CMAKE_INSTALL_PREFIX}/") # which is without the slash, so / is empty
cmake_path(ABSOLUTE_PATH prefix NORMALIZE)

# As a distribution has it: /usr has its configuration in /etc. Any other tree has all of its own.
if(prefix STREQUAL /usr/)
  cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_SYSCONFDIR BASE_DIRECTORY /)
endif()
foreach(folder CMAKE_INSTALL_BINDIR CMAKE_INSTALL_SYSCONFDIR VELTA_UNIT_DIR)
  cmake_path(ABSOLUTE_PATH ${folder} BASE_DIRECTORY ${prefix} NORMALIZE)
endforeach()

# What is for an administrator to edit, and stays when it is there: dpkg asks before it takes a changed one away, and
# here nobody can be asked.
function(install_unless_there file folder)
  get_filename_component(name ${file} NAME)
  set(place $ENV{DESTDIR}${folder}/${name})
  if(NOT EXISTS ${place} AND NOT IS_SYMLINK ${place})
    file(INSTALL ${file} DESTINATION ${folder})
    return()
  endif()
  file(SHA256 ${file} shipped)
  set(there "")
  if(EXISTS ${place})
    file(SHA256 ${place} there)
  endif()
  if(NOT there STREQUAL shipped)
    message(STATUS "Kept, as it was changed: ${place} (this version's is ${file})")
  endif()
endfunction()
install_unless_there(${CMAKE_CURRENT_LIST_DIR}/policy/policy.json ${CMAKE_INSTALL_SYSCONFDIR}/velta-agent)
install_unless_there(${CMAKE_CURRENT_LIST_DIR}/logrotate/velta-agent ${CMAKE_INSTALL_SYSCONFDIR}/logrotate.d)

# Installed, for the folder, the modes and the list of what was installed, and then filled in.
set(unit velta-agent.service)
file(INSTALL ${CMAKE_CURRENT_LIST_DIR}/systemd/${unit}.in DESTINATION ${VELTA_UNIT_DIR} RENAME ${unit})
file(READ ${CMAKE_CURRENT_LIST_DIR}/systemd/${unit}.in text)
string(REPLACE @AGENT@ ${CMAKE_INSTALL_BINDIR}/velta-agent text "${text}")
string(REPLACE @POLICY@ ${CMAKE_INSTALL_SYSCONFDIR}/velta-agent/policy.json text "${text}")
string(REPLACE @MODULE_FOLDER@ ${prefix}lib/velta text "${text}")
string(REPLACE @LIBRARY_FOLDERS@ "${library_folders}" text "${text}")
file(WRITE $ENV{DESTDIR}${VELTA_UNIT_DIR}/${unit} "${text}")
