/* The floor for the listing's design, straight on libldap: one synchronous
 * search for the whole result, then a walk of every entry, attribute and
 * value with ldap_get_values_len. Anonymous, like the listing's benchmark.
 *
 *   bench_ldap_floor URI BASE FILTER ATTRIBUTE...
 */
#include <ldap.h>

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv)
{
    if (argc < 4) {
        fprintf(stderr, "usage: %s URI BASE FILTER ATTRIBUTE...\n", argv[0]);
        return 2;
    }
    LDAP *ld = NULL;
    int rc = ldap_initialize(&ld, argv[1]);
    if (rc != LDAP_SUCCESS) {
        fprintf(stderr, "ldap_initialize: %s\n", ldap_err2string(rc));
        return 1;
    }
    const int version = LDAP_VERSION3;
    const int timeLimit = 60;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &timeLimit);
    ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);

    char **attrs = argc > 4 ? argv + 4 : NULL;
    struct timeval tv = {30, 0};
    LDAPMessage *res = NULL;
    rc = ldap_search_ext_s(ld, argv[2], LDAP_SCOPE_SUBTREE, argv[3], attrs, 0, NULL, NULL, &tv, 0, &res);
    if (rc != LDAP_SUCCESS && rc != LDAP_REFERRAL) {
        fprintf(stderr, "ldap_search_ext_s: %s\n", ldap_err2string(rc));
        ldap_msgfree(res);
        ldap_unbind_ext(ld, NULL, NULL);
        return 1;
    }
    long entries = 0, values = 0;
    unsigned long bytes = 0;
    for (LDAPMessage *e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
        ++entries;
        BerElement *ber = NULL;
        for (char *a = ldap_first_attribute(ld, e, &ber); a; a = ldap_next_attribute(ld, e, ber)) {
            struct berval **v = ldap_get_values_len(ld, e, a);
            for (int i = 0; v && v[i]; ++i) {
                ++values;
                bytes += v[i]->bv_len;
            }
            ldap_value_free_len(v);
            ldap_memfree(a);
        }
        if (ber)
            ber_free(ber, 0);
    }
    ldap_msgfree(res);
    ldap_unbind_ext(ld, NULL, NULL);
    printf("%ld entries, %ld values, %lu bytes\n", entries, values, bytes);
    return 0;
}
