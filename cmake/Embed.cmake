# vision_embed(TARGET FILE NAMESPACE NAME)
# Compiles the text of FILE into TARGET as NAMESPACE::NAME, which a header of the
# target declares as `extern const char* const NAME`.
function(vision_embed target file namespace name)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  file(READ ${file} text)
  file(CONFIGURE OUTPUT ${name}.cpp @ONLY CONTENT [[
namespace @namespace@ {
extern const char* const @name@;
const char* const @name@ = R"text(@text@)text";
}  // namespace @namespace@
]])
  target_sources(${target} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
endfunction()
