# Writes videorepair(1) from the tool's own --help text.
# cmake -DPROGRAM=path/to/videorepair -DOUTPUT=videorepair.1 -DVERSION=x.y.z -P ManPage.cmake
execute_process(COMMAND ${PROGRAM} --help OUTPUT_VARIABLE help RESULT_VARIABLE status)
if(help STREQUAL "")
  message(FATAL_ERROR "${PROGRAM} --help printed nothing (${status})")
endif()

# The first line names the program and what it does, as the NAME section wants.
set(summary "repairs damaged video files")
# (REGEX REPLACE is not used with "^": it would anchor again after every match.)
if(help MATCHES "^videorepair - ([^\n]*)\n")
  set(summary "${CMAKE_MATCH_1}")
  string(FIND "${help}" "\n" end)
  math(EXPR end "${end} + 1")
  string(SUBSTRING "${help}" ${end} -1 help)
  if(help MATCHES "^\n")
    string(SUBSTRING "${help}" 1 -1 help)
  endif()
endif()

# roff: a backslash is \e, a minus is \-, and a line must not start with a control character.
string(REPLACE "\\" "\\e" help "${help}")
string(REPLACE "-" "\\-" help "${help}")
set(help "\n${help}")
string(REPLACE "\n." "\n\\&." help "${help}")
string(REPLACE "\n'" "\n\\&'" help "${help}")
string(SUBSTRING "${help}" 1 -1 help)
string(REPLACE "-" "\\-" summary "${summary}")

if(NOT help MATCHES "\n$")
  string(APPEND help "\n")
endif()
# TIMESTAMP follows SOURCE_DATE_EPOCH when set, so packages stay reproducible.
string(TIMESTAMP today "%Y-%m-%d" UTC)
file(WRITE ${OUTPUT} ".TH VIDEOREPAIR 1 \"${today}\" \"videorepair ${VERSION}\" \"User Commands\"
.SH NAME
videorepair \\- ${summary}
.SH DESCRIPTION
.nf
${help}.fi
.SH ENVIRONMENT
.TP
.B VIDEOREPAIR_FFMPEG
The ffmpeg program to run when there is none beside
.BR videorepair .
Without it, the first
.B ffmpeg
on
.B PATH
is used.
.TP
.B TMPDIR
Where the default work directory is made.
.SH SEE ALSO
.BR ffmpeg (1),
.BR ffprobe (1)
")
