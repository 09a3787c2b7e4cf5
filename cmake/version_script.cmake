# Writes the version script of libmgmt.so.1: every name of the hand-written list and of the
# generated layer's list is global in LIBMGMT_1.0, everything else local.
#   cmake -DHAND=abi/libmgmt.exports -DGENERATED=objects.exports -DOUT=libmgmt.map -P version_script.cmake
file(STRINGS ${HAND} hand REGEX "^[A-Za-z_]")
file(STRINGS ${GENERATED} generated REGEX "^[A-Za-z_]")
list(JOIN hand ";\n    " hand_text)
list(JOIN generated ";\n    " generated_text)
file(WRITE ${OUT}.new "LIBMGMT_1.0 {\n  global:\n    ${hand_text};\n    ${generated_text};\n  local:\n    *;\n};\n")
file(COPY_FILE ${OUT}.new ${OUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUT}.new)
