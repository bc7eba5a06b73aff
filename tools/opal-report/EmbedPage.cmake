# cmake -DOUTPUT=FILE -DSTYLE=FILE -DD3=FILE -DSCRIPTS=FILE,FILE... -P EmbedPage.cmake
# Writes a C++ source that holds the parts of the report's page.
function(as_bytes variable)
  set(hex "")
  foreach(file ${ARGN})
    file(READ ${file} part HEX)
    string(APPEND hex ${part} 0a)
  endforeach()
  string(REGEX REPLACE "(................................)" "\\1\n" hex "${hex}")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," hex "${hex}")
  set(${variable} "${hex}" PARENT_SCOPE)
endfunction()

string(REPLACE "," ";" SCRIPTS "${SCRIPTS}")
as_bytes(style ${STYLE})
as_bytes(script ${SCRIPTS})
as_bytes(d3 ${D3})
file(WRITE ${OUTPUT} "#include \"opal-report/Page.h\"

namespace {
constexpr unsigned char kStyle[] = {
${style}};
constexpr unsigned char kScript[] = {
${script}};
constexpr unsigned char kD3[] = {
${d3}};
template <size_t N>
std::string_view View(const unsigned char (&bytes)[N]) {
    return {reinterpret_cast<const char*>(bytes), N};
}
}  // namespace

const opal::report::PageParts& opal::report::GetPageParts() {
    static const PageParts parts = {View(kStyle), View(kScript), View(kD3)};
    return parts;
}
")
