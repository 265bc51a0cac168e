# TOLA_BUILD_DATE: the date of what is built, in seconds since 1970, below which no clock is believed.
# SOURCE_DATE_EPOCH counts where it is set, else the date of the commit.
set(TOLA_BUILD_DATE $ENV{SOURCE_DATE_EPOCH})
if("${TOLA_BUILD_DATE}" STREQUAL "")
  # The folder is named because git refuses another user's, as under sudo.
  execute_process(
    COMMAND git -c safe.directory=${PROJECT_SOURCE_DIR} -C ${PROJECT_SOURCE_DIR} log -1 --format=%ct
    OUTPUT_VARIABLE TOLA_BUILD_DATE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if("${TOLA_BUILD_DATE}" STREQUAL "")
  string(TIMESTAMP TOLA_BUILD_DATE "%s" UTC)
  message(WARNING "Neither SOURCE_DATE_EPOCH nor a commit tells the date of the sources: today's is built in.")
endif()
if(NOT TOLA_BUILD_DATE MATCHES "^[0-9]+$")
  message(FATAL_ERROR "SOURCE_DATE_EPOCH is no number of seconds: ${TOLA_BUILD_DATE}")
endif()
