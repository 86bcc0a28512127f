# Fills a freshly provisioned domain with the test accounts and exports the
# keytabs, straight into the DC's database before the DC runs: one process
# for everything (samba-tool costs a new interpreter per call).
#
#   /usr/bin/python3 populate.py SMB_CONF DIR BULK
#
# Reads the accounts from DIR/accounts.tsv (written by ad.sh):
#   kind <TAB> parent <TAB> cn <TAB> sAMAccountName <TAB> password <TAB> attr=value;attr=value...
# kind: user, disabled, service (AES keys only), plain-service (the domain's
# defaults), group. The keytabs go to DIR.
import sys

import ldb
from samba import dckeytab  # noqa: F401  adds Net.export_keytab
from samba.auth import system_session
from samba.net import Net
from samba.param import LoadParm
from samba.samdb import SamDB

# userAccountControl: normal account, and the same disabled.
UF_NORMAL = 0x0200
UF_DISABLED = 0x0002
# msDS-SupportedEncryptionTypes: AES128 and AES256. Without it the DC hands
# out RC4 tickets for the account and exports an RC4-only keytab.
AES_ONLY = "24"


def password_value(password):
    return ('"%s"' % password).encode("utf-16-le")


def main():
    smb_conf, out_dir, bulk = sys.argv[1], sys.argv[2], int(sys.argv[3])
    lp = LoadParm()
    lp.load(smb_conf)
    samdb = SamDB(url=lp.samdb_url(), session_info=system_session(), lp=lp)
    base = str(samdb.domain_dn())
    realm = lp.get("realm").lower()

    samdb.transaction_start()
    try:
        samdb.add({"dn": "OU=Bulk," + base, "objectClass": "organizationalUnit"})
        units = set()
        groups = []
        exports = []
        dns = {}
        with open(out_dir + "/accounts.tsv", encoding="utf-8") as accounts:
            for line in accounts:
                if not line.strip() or line.startswith("#"):
                    continue
                kind, parent, cn, login, password, extra = line.rstrip("\n").split("\t")
                if parent not in units:
                    samdb.add({"dn": "%s,%s" % (parent, base), "objectClass": "organizationalUnit"})
                    units.add(parent)
                # ldb escapes the value (a comma in a cn, ...).
                dn = ldb.Dn(samdb, "CN=x,%s,%s" % (parent, base))
                dn.set_component(0, "CN", cn)
                message = {"dn": dn, "sAMAccountName": login}
                for pair in filter(None, extra.split(";")):
                    name, value = pair.split("=", 1)
                    message.setdefault(name, []).append(value)
                # keytab=NAME: export the account's keys (its SPNs for a
                # service, its login for a user) into DIR/NAME.keytab.
                for keytab in message.pop("keytab", []):
                    principals = message.get("servicePrincipalName", []) if kind.endswith("service") else [login]
                    exports.extend((keytab, p) for p in principals)
                if kind == "group":
                    # Members are named by login: the DNs are known here.
                    message["member"] = [str(dns[m]) for m in message.pop("member", [])]
                    message["objectClass"] = "group"
                    groups.append(message)
                    continue
                message["objectClass"] = "user"
                message["userPrincipalName"] = "%s@%s" % (login, realm)
                message["unicodePwd"] = password_value(password)
                flags = UF_NORMAL | (UF_DISABLED if kind == "disabled" else 0)
                message["userAccountControl"] = str(flags)
                if kind == "service":
                    message["msDS-SupportedEncryptionTypes"] = AES_ONLY
                samdb.add(message)
                dns[login] = dn
        for message in groups:
            samdb.add(message)
        for i in range(1, bulk + 1):
            samdb.add(bulk_user(i, base, realm))
        samdb.transaction_commit()
    except Exception:
        samdb.transaction_cancel()
        raise

    net = Net(None, lp)
    for keytab, principal in exports:
        net.export_keytab(keytab="%s/%s.keytab" % (out_dir, keytab), principal=principal)


# A generated user for listings: a three-word cn like the others, and no
# password (the account stays disabled), which would cost its key derivation
# per user.
def bulk_user(i, base, realm):
    login = "bulk%05d" % i
    return {
        "dn": "CN=Bulk%05d User Generated,OU=Bulk,%s" % (i, base),
        "objectClass": "user",
        "sAMAccountName": login,
        "userPrincipalName": "%s@%s" % (login, realm),
        "sn": "Bulk%05d" % i,
        "givenName": "User",
        "mail": "%s@%s" % (login, realm),
        "description": "Generated user number %d" % i,
    }


if __name__ == "__main__":
    main()
