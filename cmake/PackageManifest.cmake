# Runs after CPack has built the packages (CPACK_POST_BUILD_SCRIPTS). Beside them it writes
#   orvello-module_VERSION_ARCH.spdx.json  an SPDX 2.3 bill of materials of the module package:
#       the module file and every library its NEEDED entries name, each with the Debian package
#       and version that provides it on this machine (dpkg -S, dpkg-query);
#   SHA256SUMS  the checksums of every package and bill of materials of this version in the
#       directory (both architectures, when both were built into it).
# A NEEDED entry that no installed package provides, other than the platform's own libraries,
# fails the run: a bill of materials with a hole in it is worse than none.

function(run_checked output)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE status
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT status EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "PackageManifest: '${command}' failed (${status}): ${err}")
  endif()
  set(${output} "${out}" PARENT_SCOPE)
endfunction()

# json_append(VAR ARRAY_KEY ELEMENT_JSON): appends an element to the array at ARRAY_KEY of VAR.
function(json_append var key element)
  string(JSON length LENGTH "${${var}}" ${key})
  string(JSON updated SET "${${var}}" ${key} ${length} "${element}")
  set(${var} "${updated}" PARENT_SCOPE)
endfunction()

# json_string(VAR TEXT): TEXT as a JSON string literal (the texts here have no control characters).
function(json_string var text)
  string(REPLACE "\\" "\\\\" text "${text}")
  string(REPLACE "\"" "\\\"" text "${text}")
  set(${var} "\"${text}\"" PARENT_SCOPE)
endfunction()

# purl versions escape '+' and ':' (Debian epochs and revisions carry them).
function(purl_version var version)
  string(REPLACE "%" "%25" version "${version}")
  string(REPLACE "+" "%2B" version "${version}")
  string(REPLACE ":" "%3A" version "${version}")
  set(${var} "${version}" PARENT_SCOPE)
endfunction()

set(module_package "")
foreach(file IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name ${file} NAME)
  if(name MATCHES "^orvello-module_.*\\.deb$")
    set(module_package ${file})
  endif()
endforeach()
if(NOT module_package)
  message(FATAL_ERROR "PackageManifest: no orvello-module package among ${CPACK_PACKAGE_FILES}")
endif()
# CPack runs this before it moves the packages to where they go (cpack -B DIR).
set(out_dir ${CPACK_PACKAGE_DIRECTORY})
get_filename_component(package_name ${module_package} NAME_WLE)
set(arch ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
set(multiarch ${CPACK_ORVELLO_MULTIARCH})
set(version ${CPACK_ORVELLO_VERSION})

# The module as packaged (stripped), not as built.
set(unpacked ${out_dir}/_manifest_${arch})
file(REMOVE_RECURSE ${unpacked})
run_checked(ignored dpkg-deb -x ${module_package} ${unpacked})
set(module_file ${unpacked}/usr/${CPACK_ORVELLO_MODULE_PATH})
if(NOT EXISTS ${module_file})
  message(FATAL_ERROR "PackageManifest: ${module_package} holds no usr/${CPACK_ORVELLO_MODULE_PATH}")
endif()
run_checked(dynamic ${CPACK_ORVELLO_READELF} -d --wide ${module_file})
file(SHA256 ${module_file} module_sha256)
file(SHA1 ${module_file} module_sha1)
file(SHA256 ${module_package} package_sha256)
file(REMOVE_RECURSE ${unpacked})

string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*\\[[^]\n]+\\]" needed_lines "${dynamic}")
set(needed "")
foreach(line IN LISTS needed_lines)
  string(REGEX REPLACE ".*\\[([^]]+)\\]$" "\\1" library "${line}")
  list(APPEND needed ${library})
endforeach()
if(NOT needed)
  message(FATAL_ERROR "PackageManifest: no NEEDED entries in the module:\n${dynamic}")
endif()

string(TIMESTAMP created "%Y-%m-%dT%H:%M:%SZ" UTC)
purl_version(own_purl_version ${version})
set(doc [=[{
  "spdxVersion": "SPDX-2.3",
  "dataLicense": "CC0-1.0",
  "SPDXID": "SPDXRef-DOCUMENT",
  "name": "",
  "documentNamespace": "",
  "creationInfo": {"created": "", "creators": ["Organization: Orvello developers", "Tool: cmake/PackageManifest.cmake"]},
  "packages": [],
  "files": [],
  "relationships": []
}]=])
json_string(v "${package_name}")
string(JSON doc SET "${doc}" name "${v}")
json_string(v "https://orvello.invalid/spdx/${package_name}-${package_sha256}")
string(JSON doc SET "${doc}" documentNamespace "${v}")
json_string(v "${created}")
string(JSON doc SET "${doc}" creationInfo created "${v}")

json_append(doc packages "{
  \"name\": \"orvello-module\", \"SPDXID\": \"SPDXRef-Package-orvello-module\", \"versionInfo\": \"${version}\",
  \"packageFileName\": \"${package_name}.deb\", \"supplier\": \"Organization: Orvello developers\",
  \"downloadLocation\": \"NOASSERTION\", \"filesAnalyzed\": false,
  \"checksums\": [{\"algorithm\": \"SHA256\", \"checksumValue\": \"${package_sha256}\"}],
  \"licenseConcluded\": \"NOASSERTION\", \"licenseDeclared\": \"NOASSERTION\", \"copyrightText\": \"NOASSERTION\",
  \"externalRefs\": [{\"referenceCategory\": \"PACKAGE-MANAGER\", \"referenceType\": \"purl\",
                      \"referenceLocator\": \"pkg:deb/orvello/orvello-module@${own_purl_version}?arch=${arch}\"}]}")
json_append(doc files "{
  \"fileName\": \"./usr/${CPACK_ORVELLO_MODULE_PATH}\", \"SPDXID\": \"SPDXRef-File-liborvello\",
  \"checksums\": [{\"algorithm\": \"SHA1\", \"checksumValue\": \"${module_sha1}\"},
                  {\"algorithm\": \"SHA256\", \"checksumValue\": \"${module_sha256}\"}],
  \"licenseConcluded\": \"NOASSERTION\", \"copyrightText\": \"NOASSERTION\"}")
json_append(doc relationships "{\"spdxElementId\": \"SPDXRef-DOCUMENT\", \"relationshipType\": \"DESCRIBES\",
                                \"relatedSpdxElement\": \"SPDXRef-Package-orvello-module\"}")
json_append(doc relationships "{\"spdxElementId\": \"SPDXRef-Package-orvello-module\", \"relationshipType\": \"CONTAINS\",
                                \"relatedSpdxElement\": \"SPDXRef-File-liborvello\"}")

set(summary "")
foreach(library IN LISTS needed)
  string(MAKE_C_IDENTIFIER "${library}" id)
  string(REPLACE "_" "-" id "SPDXRef-Library-${id}")
  if(library MATCHES "^libvrax_")
    # The platform's own library: the device provides it; on a PC the devkit of this build does.
    json_string(comment "a library of the Vrax platform, provided by the device (virtual package vrax-platform); on a PC by orvello-devkit ${version}")
    json_append(doc packages "{
      \"name\": \"${library}\", \"SPDXID\": \"${id}\", \"versionInfo\": \"NOASSERTION\",
      \"supplier\": \"NOASSERTION\", \"downloadLocation\": \"NOASSERTION\", \"filesAnalyzed\": false,
      \"licenseConcluded\": \"NOASSERTION\", \"licenseDeclared\": \"NOASSERTION\", \"copyrightText\": \"NOASSERTION\",
      \"comment\": ${comment}}")
    string(APPEND summary "  ${library}: vrax-platform (the device; orvello-devkit ${version} on a PC)\n")
  else()
    execute_process(COMMAND dpkg -S "*/${multiarch}/${library}" OUTPUT_VARIABLE owners RESULT_VARIABLE status ERROR_QUIET)
    set(owner "")
    set(path "")
    string(REPLACE "\n" ";" owners "${owners}")
    foreach(line IN LISTS owners)
      if(line MATCHES "^([^ :,]+:${arch}): (/.*/${multiarch}/[^/]+)$")
        get_filename_component(found ${CMAKE_MATCH_2} NAME)
        if(found STREQUAL library)
          set(owner ${CMAKE_MATCH_1})
          set(path ${CMAKE_MATCH_2})
          break()
        endif()
      endif()
    endforeach()
    if(NOT owner)
      message(FATAL_ERROR "PackageManifest: no installed ${arch} package provides ${library}, which the module needs "
                          "(dpkg -S '*/${multiarch}/${library}')")
    endif()
    run_checked(query dpkg-query -W "-f=\${Package}\\t\${Version}\\t\${source:Package}\\t\${source:Version}" ${owner})
    string(REPLACE "\t" ";" query "${query}")
    list(GET query 0 debian_name)
    list(GET query 1 debian_version)
    list(GET query 2 source_name)
    list(GET query 3 source_version)
    purl_version(purl ${debian_version})
    json_string(comment "${library} (NEEDED by liborvello.so) resolves to ${path}")
    json_append(doc packages "{
      \"name\": \"${debian_name}\", \"SPDXID\": \"${id}\", \"versionInfo\": \"${debian_version}\",
      \"supplier\": \"Organization: Debian\", \"downloadLocation\": \"NOASSERTION\", \"filesAnalyzed\": false,
      \"sourceInfo\": \"built from Debian source package ${source_name} ${source_version}\",
      \"licenseConcluded\": \"NOASSERTION\", \"licenseDeclared\": \"NOASSERTION\", \"copyrightText\": \"NOASSERTION\",
      \"externalRefs\": [{\"referenceCategory\": \"PACKAGE-MANAGER\", \"referenceType\": \"purl\",
                          \"referenceLocator\": \"pkg:deb/debian/${debian_name}@${purl}?arch=${arch}\"}],
      \"comment\": ${comment}}")
    string(APPEND summary "  ${library}: ${debian_name}:${arch} ${debian_version}\n")
  endif()
  json_append(doc relationships "{\"spdxElementId\": \"SPDXRef-File-liborvello\", \"relationshipType\": \"DYNAMIC_LINK\",
                                  \"relatedSpdxElement\": \"${id}\"}")
endforeach()

set(sbom ${out_dir}/${package_name}.spdx.json)
file(WRITE ${sbom} "${doc}\n")
message(STATUS "PackageManifest: ${sbom}, the module links:\n${summary}")

# Checksums of this version's packages and bills of materials: this run's, and those of the
# other architecture already in the directory.
set(names "")
foreach(file IN LISTS CPACK_PACKAGE_FILES sbom)
  get_filename_component(name ${file} NAME)
  file(SHA256 ${file} sum_${name})
  list(APPEND names ${name})
endforeach()
file(GLOB others RELATIVE ${out_dir} ${out_dir}/*_${version}_*.deb ${out_dir}/*_${version}_*.spdx.json)
foreach(name IN LISTS others)
  if(NOT name IN_LIST names)
    file(SHA256 ${out_dir}/${name} sum_${name})
    list(APPEND names ${name})
  endif()
endforeach()
list(SORT names)
set(sums "")
foreach(name IN LISTS names)
  string(APPEND sums "${sum_${name}}  ${name}\n")
endforeach()
file(WRITE ${out_dir}/SHA256SUMS "${sums}")
list(JOIN names ", " listed)
message(STATUS "PackageManifest: ${out_dir}/SHA256SUMS lists ${listed}")
