# cmake -DIN=file -DOUT=file.cpp -DSYMBOL=name -P EmbedBinary.cmake
# A NUL follows the bytes, outside the size, so that text can be read as a C string.
file(READ ${IN} hex HEX)
string(LENGTH "${hex}" n)
math(EXPR size "${n} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
file(WRITE ${OUT}.tmp "// Generated at build time. Do not edit.\n#include <cstddef>\nextern const unsigned char ${SYMBOL}[] = {\n${bytes}\n0x00};\nextern const size_t ${SYMBOL}_size = ${size};\n")
file(RENAME ${OUT}.tmp ${OUT})
