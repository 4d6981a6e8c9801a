// SPDX-License-Identifier: Apache-2.0
import java.util.Hashtable;
import javax.naming.Context;
import javax.naming.NamingEnumeration;
import javax.naming.directory.SearchControls;
import javax.naming.directory.SearchResult;
import javax.naming.ldap.Control;
import javax.naming.ldap.InitialLdapContext;
import javax.naming.ldap.PagedResultsControl;
import javax.naming.ldap.PagedResultsResponseControl;

/**
 * A paged search through JNDI: PagedSearch URI BASE FILTER SIZE. Writes each entry's uid on a
 * line, and a line "page N" behind each page.
 */
public class PagedSearch {
    public static void main(String[] words) throws Exception {
        Hashtable<String, Object> settings = new Hashtable<>();
        settings.put(Context.INITIAL_CONTEXT_FACTORY, "com.sun.jndi.ldap.LdapCtxFactory");
        settings.put(Context.PROVIDER_URL, words[0]);
        settings.put(Context.REFERRAL, "ignore");
        InitialLdapContext context = new InitialLdapContext(settings, null);
        int size = Integer.parseInt(words[3]);
        SearchControls how = new SearchControls();
        how.setSearchScope(SearchControls.SUBTREE_SCOPE);
        how.setReturningAttributes(new String[] {"uid"});
        StringBuilder text = new StringBuilder();
        byte[] cookie = null;
        do {
            context.setRequestControls(new Control[] {new PagedResultsControl(size, cookie, Control.CRITICAL)});
            NamingEnumeration<SearchResult> results = context.search(words[1], words[2], how);
            int count = 0;
            for (; results.hasMore(); ++count) {
                text.append(results.next().getAttributes().get("uid").get()).append('\n');
            }
            text.append("page ").append(count).append('\n');
            cookie = null;
            Control[] controls = context.getResponseControls();
            for (int i = 0; controls != null && i < controls.length; ++i) {
                if (controls[i] instanceof PagedResultsResponseControl) {
                    cookie = ((PagedResultsResponseControl) controls[i]).getCookie();
                }
            }
        } while (cookie != null && cookie.length > 0);
        context.close();
        System.out.print(text);
    }
}
