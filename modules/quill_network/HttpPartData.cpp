#include <quill_network/HttpPartData.h>

HttpPartData HttpPartData::makePart(const std::string& name, const std::string& value,
                                    bool isFile) {
  HttpPartData part;
  part.isFile = isFile;
  part.name = name;
  part.value = value;
  return part;
}
