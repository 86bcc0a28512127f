// Writes initiator tokens for one service to files, one per way a client may
// ask: capture OUTDIR PREFIX TARGET. The credential is the default one (the
// ticket in KRB5CCNAME). Built and run by capture.sh.
#include <gssapi/gssapi.h>
#include <gssapi/gssapi_krb5.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

gss_OID_desc spnegoOid = {6, const_cast<char *>("\x2b\x06\x01\x05\x05\x02")};

bool capture(const std::string &path, gss_name_t target, gss_OID mech, OM_uint32 flags,
             gss_channel_bindings_t bindings)
{
    OM_uint32 minor = 0;
    gss_ctx_id_t context = GSS_C_NO_CONTEXT;
    gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
    const OM_uint32 major = gss_init_sec_context(&minor, GSS_C_NO_CREDENTIAL, &context, target, mech, flags, 0,
                                                 bindings, GSS_C_NO_BUFFER, nullptr, &output, nullptr, nullptr);
    bool ok = !GSS_ERROR(major) && output.length > 0;
    if (ok) {
        FILE *file = std::fopen(path.c_str(), "wb");
        ok = file && std::fwrite(output.value, 1, output.length, file) == output.length;
        if (file)
            ok = std::fclose(file) == 0 && ok;
    } else {
        std::fprintf(stderr, "%s: gss_init_sec_context major %08x minor %d\n", path.c_str(), major, int(minor));
    }
    gss_release_buffer(&minor, &output);
    gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
    return ok;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: capture OUTDIR PREFIX TARGET\n");
        return 2;
    }
    const std::string prefix = std::string(argv[1]) + "/" + argv[2] + "-";

    OM_uint32 minor = 0;
    gss_buffer_desc nameText = {std::strlen(argv[3]), argv[3]};
    gss_name_t target = GSS_C_NO_NAME;
    if (GSS_ERROR(gss_import_name(&minor, &nameText, GSS_C_NT_HOSTBASED_SERVICE, &target))) {
        std::fprintf(stderr, "cannot import %s\n", argv[3]);
        return 1;
    }

    char application[] = "fuzz";
    gss_channel_bindings_struct bindings = {};
    bindings.application_data.length = sizeof application - 1;
    bindings.application_data.value = application;

    const OM_uint32 all = GSS_C_MUTUAL_FLAG | GSS_C_REPLAY_FLAG | GSS_C_SEQUENCE_FLAG | GSS_C_CONF_FLAG | GSS_C_INTEG_FLAG;
    bool ok = true;
    // What the library's own initiator sends.
    ok &= capture(prefix + "mutual", target, gss_mech_krb5, GSS_C_MUTUAL_FLAG, GSS_C_NO_CHANNEL_BINDINGS);
    ok &= capture(prefix + "no-flags", target, gss_mech_krb5, 0, GSS_C_NO_CHANNEL_BINDINGS);
    ok &= capture(prefix + "all-flags", target, gss_mech_krb5, all, GSS_C_NO_CHANNEL_BINDINGS);
    // A forwarded ticket inside the authenticator's checksum.
    ok &= capture(prefix + "delegate", target, gss_mech_krb5, GSS_C_MUTUAL_FLAG | GSS_C_DELEG_FLAG,
                  GSS_C_NO_CHANNEL_BINDINGS);
    ok &= capture(prefix + "bindings", target, gss_mech_krb5, GSS_C_MUTUAL_FLAG, &bindings);
    // A bare AP-REQ without the token framing.
    ok &= capture(prefix + "dce", target, gss_mech_krb5, GSS_C_MUTUAL_FLAG | GSS_C_DCE_STYLE,
                  GSS_C_NO_CHANNEL_BINDINGS);
    // The negotiation wrapper, which the acceptor's krb5-only credential refuses.
    ok &= capture(prefix + "spnego", target, &spnegoOid, GSS_C_MUTUAL_FLAG, GSS_C_NO_CHANNEL_BINDINGS);

    gss_release_name(&minor, &target);
    return ok ? 0 : 1;
}
