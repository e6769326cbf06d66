# SuiteSparse from Debian ships neither pkg-config nor CMake package files: find the headers and the
# libraries by hand and wrap them in one imported target, `suitesparse`. The BLAS under UMFPACK and
# CHOLMOD is whatever libblas.so.3 points to (OpenBLAS once libopenblas0-pthread is installed).
find_path(SUITESPARSE_INCLUDE_DIR umfpack.h PATH_SUFFIXES suitesparse REQUIRED)
set(SUITESPARSE_LIBRARIES)
foreach(lib umfpack cholmod amd colamd suitesparseconfig)
  find_library(SUITESPARSE_${lib}_LIBRARY ${lib} REQUIRED)
  list(APPEND SUITESPARSE_LIBRARIES ${SUITESPARSE_${lib}_LIBRARY})
endforeach()
add_library(suitesparse INTERFACE IMPORTED)
target_include_directories(suitesparse SYSTEM INTERFACE ${SUITESPARSE_INCLUDE_DIR})
target_link_libraries(suitesparse INTERFACE ${SUITESPARSE_LIBRARIES} m)
