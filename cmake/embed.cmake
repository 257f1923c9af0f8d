# Makes a C++ source of files that a program carries: cmake -DOUT=.. -DFILES=a;b -P embed.cmake
set(rows "")
set(arrays "")
set(number 0)
foreach(file ${FILES})
  file(READ ${file} hex HEX)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${hex}")
  get_filename_component(name ${file} NAME)
  string(APPEND arrays "constexpr unsigned char kFile${number}[] = {${bytes}};\n")
  string(APPEND rows "    {\"/${name}\", {reinterpret_cast<const char*>(kFile${number}), sizeof(kFile${number})}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUT} "#include \"tools/quilctl/page/page_files.h\"\n\n"
  "namespace quil::tools {\nnamespace {\n\n${arrays}\n}  // namespace\n\n"
  "const std::map<std::string_view, std::string_view>& pageFiles() {\n"
  "    static const std::map<std::string_view, std::string_view> files = {\n${rows}    };\n"
  "    return files;\n}\n\n}  // namespace quil::tools\n")
