#!/usr/bin/perl
# SPDX-License-Identifier: Apache-2.0
# Net::LDAP: logs in, looks a person up, counts everybody page by page, compares, and
# tries what the gateway does not do.
#
#     people.pl URI AUTHORITY DN PASSWORD
use strict;
use warnings;
use Net::LDAP;
use Net::LDAP::Constant qw(LDAP_CONTROL_PAGED);
use Net::LDAP::Control::Paged;
use Net::LDAP::Extension::SetPassword;
use Net::LDAP::Extension::WhoAmI;

my $base = 'dc=example,dc=com';
my ($uri, $authority, $dn, $password) = @ARGV;
my $ldap = Net::LDAP->new($uri, verify => 'require', cafile => $authority) or die "$@\n";

print 'wrong password: ', $ldap->bind($dn, password => 'wrong')->code, "\n";
$ldap->bind($dn, password => $password)->code and die "no log-in\n";
print 'logged in: ', $ldap->who_am_i->response, "\n";

my $found = $ldap->search(base => $base, filter => '(&(objectClass=posixAccount)(uid=ann))', attrs => ['uidNumber', 'mail']);
my $entry = $found->entry(0);
print 'found: ', join(' ', $entry->dn, $entry->get_value('uidNumber'), $entry->get_value('mail')), "\n";
print 'nobody: ', $ldap->search(base => $base, filter => '(&(objectClass=posixAccount)(uid=nobody-here))')->code, "\n";

my $page = Net::LDAP::Control::Paged->new(size => 10, critical => 1);
my @sizes;
while (1) {
    my $people = $ldap->search(base => $base, filter => '(objectClass=posixAccount)', attrs => ['uid'], control => [$page]);
    $people->code and die $people->error, "\n";
    push @sizes, $people->count;
    my ($answer) = $people->control(LDAP_CONTROL_PAGED) or last;
    my $cookie = $answer->cookie or last;
    $page->cookie($cookie);
}
print "pages: @sizes\n";

print 'compare: ', $ldap->compare($dn, attr => 'uid', value => 'ann')->code, "\n";
print 'modify: ', $ldap->modify($dn, replace => { loginShell => '/bin/zsh' })->code, "\n";
print 'add: ', $ldap->add("cn=new,$base", attrs => [objectClass => 'person', cn => 'new', sn => 'new'])->code, "\n";
print 'rename: ', $ldap->moddn($dn, newrdn => 'cn=new')->code, "\n";
print 'delete: ', $ldap->delete($dn)->code, "\n";
print 'password change: ', $ldap->set_password(user => $dn, oldpasswd => $password, newpasswd => 'other')->code, "\n";
