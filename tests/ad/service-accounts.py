# Service accounts that have gone wrong the ways SSO breaks at AD sites, made
# in the running DC's database for a test that brings its own names, so that
# the domain's other accounts and the tests reading them are left alone.
#
#   /usr/bin/python3 service-accounts.py SMB_CONF OUT_DIR PREFIX
#
# Each account is a computer account (objectCategory computer: no user
# listing sees it) PREFIX<case>$ with the SPN HTTP/PREFIX-<case>.<domain>;
# its keytab goes to OUT_DIR/<case>.keytab.
#   stale   AES only; its password is set again after the keytab's export,
#           so the keytab holds the previous key version
#   rc4     exported with the domain's defaults (RC4 only), then AES only
#   dup     AES only; a second account PREFIXdup2$ holds the same SPN
#   hidden  AES only; the user alice may not read its key version nor its
#           enctypes
#   fine    AES only, exported as it stands
import sys

import ldb
from samba import dckeytab  # noqa: F401  adds Net.export_keytab
from samba import sd_utils
from samba.auth import system_session
from samba.dcerpc import misc, security
from samba.ndr import ndr_unpack
from samba.net import Net
from samba.param import LoadParm
from samba.samdb import SamDB

UF_WORKSTATION_TRUST_ACCOUNT = 0x1000
AES_ONLY = "24"


def password_value(password):
    return ('"%s"' % password).encode("utf-16-le")


def schema_guid(samdb, name):
    res = samdb.search(base=samdb.get_schema_basedn(), scope=ldb.SCOPE_ONELEVEL,
                       expression="(lDAPDisplayName=%s)" % name, attrs=["schemaIDGUID"])
    return str(ndr_unpack(misc.GUID, res[0]["schemaIDGUID"][0]))


def main():
    smb_conf, out_dir, prefix = sys.argv[1], sys.argv[2], sys.argv[3]
    lp = LoadParm()
    lp.load(smb_conf)
    samdb = SamDB(url=lp.samdb_url(), session_info=system_session(), lp=lp)
    base = str(samdb.domain_dn())
    domain = lp.get("realm").lower()
    net = Net(None, lp)

    def spn(case):
        return "HTTP/%s-%s.%s" % (prefix, case, domain)

    def account(name, case, enctypes):
        dn = "CN=%s,CN=Computers,%s" % (name, base)
        message = {"dn": dn, "objectClass": "computer", "sAMAccountName": name + "$",
                   "userAccountControl": str(UF_WORKSTATION_TRUST_ACCOUNT),
                   "unicodePwd": password_value("Svc-%s-Key-1" % name)}
        if case:
            message["servicePrincipalName"] = spn(case)
        if enctypes:
            message["msDS-SupportedEncryptionTypes"] = enctypes
        samdb.add(message)
        return dn

    def export(case):
        net.export_keytab(keytab="%s/%s.keytab" % (out_dir, case), principal=spn(case))

    for case in ("stale", "dup", "hidden", "fine"):
        account(prefix + case, case, AES_ONLY)
        export(case)
    rc4 = account(prefix + "rc4", "rc4", None)
    export("rc4")

    samdb.setpassword("(sAMAccountName=%sstale$)" % prefix, "Svc-%sstale-Key-2" % prefix)

    modify = ldb.Message()
    modify.dn = ldb.Dn(samdb, rc4)
    modify["msDS-SupportedEncryptionTypes"] = ldb.MessageElement(AES_ONLY, ldb.FLAG_MOD_REPLACE,
                                                                 "msDS-SupportedEncryptionTypes")
    samdb.modify(modify)

    alice = samdb.search(base=base, expression="(sAMAccountName=alice)", attrs=["objectSid"])[0]
    sid = str(ndr_unpack(security.dom_sid, alice["objectSid"][0]))
    hidden = "CN=%shidden,CN=Computers,%s" % (prefix, base)
    for name in ("msDS-KeyVersionNumber", "msDS-SupportedEncryptionTypes"):
        sd_utils.SDUtils(samdb).dacl_add_ace(hidden, "(OD;;RP;%s;;%s)" % (schema_guid(samdb, name), sid))

    # The DC refuses a second holder of an SPN through every interface, as
    # current domains do; a domain can still hold one from before that
    # check or from another DC. Such a record is written past the DC's
    # checks, into the domain partition's own database.
    dup2 = account(prefix + "dup2", None, AES_ONLY)
    partition = ldb.Ldb(url="%s/%s.ldb" % (lp.private_path("sam.ldb.d"), base.upper()), options=["modules:"])
    add = ldb.Message()
    add.dn = ldb.Dn(partition, dup2)
    add["servicePrincipalName"] = ldb.MessageElement(spn("dup"), ldb.FLAG_MOD_ADD, "servicePrincipalName")
    partition.modify(add)


main()
