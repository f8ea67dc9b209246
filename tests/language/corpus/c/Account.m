#import <Foundation/Foundation.h>

@interface Account : NSObject
@property (nonatomic, copy) NSString *owner;
@property (nonatomic) double balance;
- (void)deposit:(double)amount;
@end

@implementation Account
- (void)deposit:(double)amount {
    self.balance += amount;
    NSLog(@"%@ now has %.2f", self.owner, self.balance);
}
@end
