# The server-trust anchors and the server-certificate policy are fixed when the program is built.
#
#   SCRIVA_TRUST_CHAIN1_PEM   PEM file: one self-signed root
#   SCRIVA_TRUST_CHAIN2_PEM   PEM file: the root first, then the intermediate it issued
#   SCRIVA_SERVER_POLICY_OID  the policy the server's signing certificate must carry (dotted)
#
# Without the two chain files a development PKI is generated into the build tree and trusted;
# its private keys (and extra signers for the tests) stay there and are exposed as
# SCRIVA_DEV_PKI_DIR. The certificate texts are compiled into the program; nothing is read from
# disk at run time.

set(SCRIVA_TRUST_CHAIN1_PEM "" CACHE FILEPATH "PEM file with trusted chain 1 (one self-signed root)")
set(SCRIVA_TRUST_CHAIN2_PEM "" CACHE FILEPATH "PEM file with trusted chain 2 (root, then intermediate)")
set(SCRIVA_SERVER_POLICY_OID "2.25.167889907315684892123040452429353719572" CACHE STRING
    "Certificate policy OID required in the server's signing certificate")

if(NOT SCRIVA_SERVER_POLICY_OID MATCHES "^[0-2](\\.(0|[1-9][0-9]*))+$")
  message(FATAL_ERROR "SCRIVA_SERVER_POLICY_OID is not a dotted OID: '${SCRIVA_SERVER_POLICY_OID}'")
endif()

# Writes the development PKI into `dir` unless a complete one for the same policy is there.
function(scriva_generate_dev_pki dir oid)
  set(marker ${dir}/complete)
  if(EXISTS ${marker})
    file(READ ${marker} madeFor)
    if(madeFor STREQUAL oid)
      return()
    endif()
  endif()

  find_program(SCRIVA_OPENSSL_EXECUTABLE openssl)
  if(NOT SCRIVA_OPENSSL_EXECUTABLE)
    message(FATAL_ERROR "The openssl command is needed to generate the development PKI "
                        "(or give SCRIVA_TRUST_CHAIN1_PEM and SCRIVA_TRUST_CHAIN2_PEM)")
  endif()
  message(STATUS "Generating the development PKI in ${dir}")
  file(REMOVE_RECURSE ${dir})
  file(MAKE_DIRECTORY ${dir}/issued)
  file(WRITE ${dir}/issued/index.txt "")

  set(signerBase "basicConstraints = critical,CA:FALSE
keyUsage = critical,digitalSignature,nonRepudiation
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid")
  file(WRITE ${dir}/extensions.cnf "\
[root]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[intermediate]
basicConstraints = critical,CA:TRUE,pathlen:0
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[signer]
${signerBase}
certificatePolicies = ${oid}
[signer_no_policy]
${signerBase}
[signer_other_policies]
${signerBase}
certificatePolicies = ${oid}.0, 2.25.1
[signer_several_policies]
${signerBase}
certificatePolicies = 2.25.1, ${oid}, 2.5.29.32.0
")
  # `openssl ca` is used for issuing because it can set arbitrary validity dates.
  file(WRITE ${dir}/ca.cnf "\
[ca]
default_ca = devca
[devca]
database = ${dir}/issued/index.txt
new_certs_dir = ${dir}/issued
rand_serial = yes
policy = anything
default_md = sha384
unique_subject = no
email_in_dn = no
[anything]
commonName = supplied
organizationName = optional
countryName = optional
")

  set(org "/C=CZ/O=Scriva Development PKI")
  macro(run_openssl)
    execute_process(COMMAND ${SCRIVA_OPENSSL_EXECUTABLE} ${ARGN} WORKING_DIRECTORY ${dir}
                    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "openssl ${ARGN} failed:\n${out}${err}")
    endif()
  endmacro()
  macro(make_root name subject)
    run_openssl(req -x509 -newkey rsa:2048 -nodes -sha384 -days 7300 -keyout ${name}.key -out ${name}.pem
                -subj "${org}/CN=${subject}" -config extensions.cnf -extensions root)
  endmacro()
  # issue(<name> <issuer> <CN> <extensions section> [openssl ca validity options...])
  macro(issue name issuer subject section)
    run_openssl(req -new -newkey rsa:2048 -nodes -keyout ${name}.key -out issued/${name}.csr
                -subj "${org}/CN=${subject}")
    set(validity ${ARGN})
    if(NOT validity)
      set(validity -days 3650)
    endif()
    run_openssl(ca -batch -notext -preserveDN -config ca.cnf -cert ${issuer}.pem -keyfile ${issuer}.key
                -in issued/${name}.csr -out ${name}.pem -extfile extensions.cnf -extensions ${section}
                ${validity})
  endmacro()

  make_root(chain1-root "Scriva Development Technological Root CA")
  make_root(chain2-root "Scriva Development Root CA")
  issue(chain2-intermediate chain2-root "Scriva Development Certification Service CA" intermediate)
  issue(server-chain1 chain1-root "Scriva Development Server 1" signer)
  issue(server-chain2 chain2-intermediate "Scriva Development Server 2" signer)

  # Signers the tests expect to be refused (or accepted for a subtle reason).
  make_root(unknown-root "Scriva Unknown Root CA")
  issue(signer-unknown-root unknown-root "Scriva Signer Of Unknown Root" signer)
  issue(signer-no-policy chain2-intermediate "Scriva Signer Without Policy" signer_no_policy)
  issue(signer-other-policies chain2-intermediate "Scriva Signer With Other Policies" signer_other_policies)
  issue(signer-several-policies chain2-intermediate "Scriva Signer With Several Policies"
        signer_several_policies)
  issue(signer-expired chain2-intermediate "Scriva Expired Signer" signer
        -startdate 20200101000000Z -enddate 20210101000000Z)
  issue(signer-not-yet-valid chain2-intermediate "Scriva Future Signer" signer
        -startdate 20990101000000Z -enddate 21000101000000Z)

  file(READ ${dir}/chain1-root.pem root1)
  file(READ ${dir}/chain2-root.pem root2)
  file(READ ${dir}/chain2-intermediate.pem intermediate2)
  file(WRITE ${dir}/chain1.pem "${root1}")
  file(WRITE ${dir}/chain2.pem "${root2}${intermediate2}")
  file(WRITE ${marker} "${oid}")
endfunction()

# The CERTIFICATE blocks of a PEM file, exactly `count` of them; anything else (keys!) is dropped.
function(scriva_read_pem_chain file count outVar)
  if(NOT EXISTS "${file}")
    message(FATAL_ERROR "Trust anchor file not found: ${file}")
  endif()
  file(READ "${file}" text)
  string(REGEX MATCHALL "-----BEGIN CERTIFICATE-----[^-]+-----END CERTIFICATE-----" blocks "${text}")
  list(LENGTH blocks found)
  if(NOT found EQUAL count)
    message(FATAL_ERROR "${file} must hold ${count} certificate(s), it holds ${found}")
  endif()
  list(JOIN blocks "\n" joined)
  set(${outVar} "${joined}\n" PARENT_SCOPE)
  set_property(DIRECTORY ${CMAKE_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
endfunction()

if(SCRIVA_TRUST_CHAIN1_PEM OR SCRIVA_TRUST_CHAIN2_PEM)
  if(NOT SCRIVA_TRUST_CHAIN1_PEM OR NOT SCRIVA_TRUST_CHAIN2_PEM)
    message(FATAL_ERROR "Give both SCRIVA_TRUST_CHAIN1_PEM and SCRIVA_TRUST_CHAIN2_PEM, or neither")
  endif()
  set(SCRIVA_DEV_PKI_DIR "")
  set(chain1File ${SCRIVA_TRUST_CHAIN1_PEM})
  set(chain2File ${SCRIVA_TRUST_CHAIN2_PEM})
else()
  set(SCRIVA_DEV_PKI_DIR ${CMAKE_BINARY_DIR}/devpki)
  scriva_generate_dev_pki(${SCRIVA_DEV_PKI_DIR} ${SCRIVA_SERVER_POLICY_OID})
  set(chain1File ${SCRIVA_DEV_PKI_DIR}/chain1.pem)
  set(chain2File ${SCRIVA_DEV_PKI_DIR}/chain2.pem)
  message(WARNING "This build trusts a DEVELOPMENT PKI generated in ${SCRIVA_DEV_PKI_DIR}; anyone "
                  "holding its keys can sign requests. Give SCRIVA_TRUST_CHAIN1_PEM and "
                  "SCRIVA_TRUST_CHAIN2_PEM for a release build.")
endif()

scriva_read_pem_chain(${chain1File} 1 SCRIVA_TRUST_CHAIN1_TEXT)
scriva_read_pem_chain(${chain2File} 2 SCRIVA_TRUST_CHAIN2_TEXT)

# Rewritten only when the content changes, so nothing rebuilds needlessly.
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/generated/scrivatrustanchorsdata.h @ONLY CONTENT "\
#pragma once
// Generated when the build was configured; the trusted chains and the server policy.
namespace ScrivaTrustAnchorData {
inline constexpr char chain1Pem[] = R\"PEM(@SCRIVA_TRUST_CHAIN1_TEXT@)PEM\";
inline constexpr char chain2Pem[] = R\"PEM(@SCRIVA_TRUST_CHAIN2_TEXT@)PEM\";
inline constexpr char serverPolicyOid[] = \"@SCRIVA_SERVER_POLICY_OID@\";
}
")
