# The code is divided into floors. Each floor is a target that links only the floors below it, so that
# including a header of a higher floor does not build.

set(DXR_PUBLIC_INCLUDE_DIR ${PROJECT_BINARY_DIR}/include CACHE INTERNAL "")
set_property(GLOBAL PROPERTY DXR_FLOOR_TARGETS "")
set_property(GLOBAL PROPERTY DXR_FLOOR_LIBRARIES "")
set_property(GLOBAL PROPERTY DXR_PUBLIC_HEADERS "")

# dxr_floor(NAME BELOW <floor>... SOURCES <file>... PUBLIC_HEADERS <file>... LIBRARIES <target>...
#           FOLDERS <sub-folder>...)
# Adds a floor. BELOW are the floors that it may use. PUBLIC_HEADERS are installed as <dxr/File.h> and staged
# in the build tree under the same name, so that the command and the examples see the same headers as a
# client. FOLDERS are additional include folders of this floor.
function(dxr_floor NAME)
  cmake_parse_arguments(ARG "" "" "BELOW;SOURCES;PUBLIC_HEADERS;LIBRARIES;FOLDERS" ${ARGN})
  set(target dxr_${NAME})
  add_library(${target} STATIC ${ARG_SOURCES})
  target_include_directories(${target} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  foreach(folder IN LISTS ARG_FOLDERS)
    target_include_directories(${target} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/${folder})
  endforeach()
  foreach(below IN LISTS ARG_BELOW)
    target_link_libraries(${target} PUBLIC dxr_${below})
  endforeach()
  target_link_libraries(${target} PUBLIC ${ARG_LIBRARIES} PRIVATE dxr_options)
  set_property(GLOBAL APPEND PROPERTY DXR_FLOOR_TARGETS ${target})
  set_property(GLOBAL APPEND PROPERTY DXR_FLOOR_LIBRARIES ${ARG_LIBRARIES})
  foreach(header IN LISTS ARG_PUBLIC_HEADERS)
    set_property(GLOBAL APPEND PROPERTY DXR_PUBLIC_HEADERS ${CMAKE_CURRENT_SOURCE_DIR}/${header})
    get_filename_component(file ${header} NAME)
    file(MAKE_DIRECTORY ${DXR_PUBLIC_INCLUDE_DIR}/dxr)
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${DXR_PUBLIC_INCLUDE_DIR}/dxr/${file} SYMBOLIC)
  endforeach()
endfunction()

# dxr_test(NAME SOURCES <file>... LIBRARIES <target>... [LABELS <label>...] [TIMEOUT <seconds>] [SERIAL]
#          [PRELOAD <library>] [ONLY <GoogleTest filter>] [PREFIX <of the cases' names>])
# Builds a GoogleTest program and registers each of its cases with CTest, to be run in a separate process.
function(dxr_test NAME)
  cmake_parse_arguments(ARG "SERIAL" "TIMEOUT;ONLY;PREFIX;PRELOAD" "SOURCES;LIBRARIES;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${NAME} ${ARG_SOURCES})
  target_link_libraries(${NAME} PRIVATE ${ARG_LIBRARIES} dxr_test_support dxr_realtime_check
                                        dxr_private_data_folder
                                        GTest::gtest GTest::gtest_main
                                        dxr_options)
  set(properties TIMEOUT ${ARG_TIMEOUT})
  if(ARG_LABELS)
    list(APPEND properties LABELS "${ARG_LABELS}")
  endif()
  if(ARG_PRELOAD) # The address sanitizer's library is then not the first one, which it must be told to accept.
    list(APPEND properties ENVIRONMENT "LD_PRELOAD=${ARG_PRELOAD}"
         ENVIRONMENT_MODIFICATION "ASAN_OPTIONS=set:verify_asan_link_order=0")
  endif()
  if(ARG_SERIAL)
    list(APPEND properties RUN_SERIAL TRUE)
  endif()
  gtest_discover_tests(${NAME} DISCOVERY_TIMEOUT 60 TEST_FILTER "${ARG_ONLY}" TEST_PREFIX "${ARG_PREFIX}"
                       PROPERTIES ${properties})
endfunction()
