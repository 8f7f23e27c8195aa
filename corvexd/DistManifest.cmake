# Writes manifest.json for the builds in DIST (run with cmake -P at build time, after the copy).
file(SIZE ${DIST}/${PLATFORM}/corvexd size)
set(text "{\n  \"version\": \"${VERSION}\",\n  \"builds\": {\n")
string(APPEND text "    \"${PLATFORM}\": {\"target\": \"${PLATFORM}\", \"id\": \"${ID}\", \"size\": ${size}, \"file\": \"${PLATFORM}/corvexd\"}\n")
string(APPEND text "  }\n}\n")
# Written beside and renamed, so a reader never sees half a manifest.
file(WRITE ${DIST}/manifest.json.tmp "${text}")
file(RENAME ${DIST}/manifest.json.tmp ${DIST}/manifest.json)
