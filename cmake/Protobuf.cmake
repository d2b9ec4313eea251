# Generated code for every .proto under src/ioc/protobuf, written so that it
# is included by a rooted name ("ioc/protobuf/IocEvents.pb.h") like the
# sources beside it.
file(GLOB CORVID_PROTO_FILES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/ioc/protobuf/*.proto)
set(CORVID_PROTO_INCLUDE_DIR ${CMAKE_BINARY_DIR}/proto)
set(CORVID_PROTO_SOURCES "")
file(MAKE_DIRECTORY ${CORVID_PROTO_INCLUDE_DIR}/ioc/protobuf)
foreach(proto ${CORVID_PROTO_FILES})
  get_filename_component(name ${proto} NAME_WE)
  set(out_cc ${CORVID_PROTO_INCLUDE_DIR}/ioc/protobuf/${name}.pb.cc)
  set(out_h ${CORVID_PROTO_INCLUDE_DIR}/ioc/protobuf/${name}.pb.h)
  add_custom_command(
    OUTPUT ${out_cc} ${out_h}
    COMMAND protobuf::protoc --cpp_out=${CORVID_PROTO_INCLUDE_DIR}
            -I ${CMAKE_SOURCE_DIR}/src ${proto}
    DEPENDS ${proto} protobuf::protoc
    COMMENT "protoc ${name}.proto")
  list(APPEND CORVID_PROTO_SOURCES ${out_cc})
  set_source_files_properties(${out_cc} PROPERTIES COMPILE_OPTIONS "-Wno-unused-parameter")
endforeach()
