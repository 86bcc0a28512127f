// kerberos private classes: to be written
